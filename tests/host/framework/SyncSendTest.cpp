// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "framework/Module.h"
#include "host/framework/Support.h"

namespace {

using namespace FrameworkTest;

constexpr int forResult = 2;
constexpr int forDelivery = 1;

// A task with a thread, and a sender without one.
class SyncSendTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(module.RegisterTask(&receiver, false), 0); }
    void TearDown() override { module.UnRegisterTask("receiver"); }

    int Send(std::function<int()> call, int mode = forResult, long timeoutMs = foreverMs)
    {
        return sender.SyncSendDirectMsg("receiver", Call(std::move(call)), reply, timeoutMs, mode);
    }

    Framework::Engine engine;
    Framework::Module module{"module"};
    Journal journal;
    JournalTask receiver{"receiver", journal};
    JournalTask sender{"sender", journal};
    std::string reply = "left from before";
};

TEST_F(SyncSendTest, ReturnsTheReceiversResultOrDeliveryAsAsked)
{
    EXPECT_EQ(Send([] { return 0; }), 0);
    EXPECT_EQ(Send([] { return 17; }), 17);
    EXPECT_EQ(Send([] { return 17; }, forDelivery), 0);
    EXPECT_EQ(Send([]() -> int { throw std::runtime_error("no"); }), -1);
    EXPECT_EQ(reply, "");
}

TEST_F(SyncSendTest, AnUnknownReceiverIsMinusOneInEveryMode)
{
    EXPECT_EQ(sender.SendDirectMsg("nobody", Call([] { return 0; })), -1);
    EXPECT_EQ(sender.SyncSendDirectMsg("nobody", Call([] { return 0; }), reply, foreverMs, forResult), -1);
    EXPECT_EQ(sender.SyncSendDirectMsg("nobody", Call([] { return 0; }), reply, foreverMs, forDelivery), -1);
    EXPECT_EQ(sender.SendAgileMsg(nullptr, Call([] { return 0; })), 0);
    EXPECT_NE(sender.SendAgileMsg(&receiver, Call([] { return 0; })), 0);
    EXPECT_EQ(sender.SyncSendDirectMsg("receiver", nullptr, reply, foreverMs, forResult), -1);
}

// What was refused to its sender is not done afterwards, and what is under way then harms nobody.
TEST_F(SyncSendTest, AMessageWhoseSenderGaveUpIsLeftAlone)
{
    std::promise<void> open;
    const auto opened = open.get_future().share();
    std::atomic<bool> lateOneRan{false};
    const auto waitForOpening = [opened] {
        opened.wait();
        return 0;
    };
    EXPECT_EQ(Send(waitForOpening, forResult, 1), -1) << "handled too late";
    receiver.SendAgileMsg(&receiver, Call(waitForOpening));  // for a first message that was skipped
    EXPECT_EQ(Send([&lateOneRan] { return lateOneRan = true; }, forResult, 1), -1) << "never handled";
    open.set_value();
    EXPECT_EQ(Send([] { return 0; }), 0);
    EXPECT_FALSE(lateOneRan);
}

TEST_F(SyncSendTest, ATaskThatSendsToItselfIsAnsweredAtOnce)
{
    EXPECT_EQ(Send([this] {
                  std::string ownReply;
                  return receiver.SyncSendDirectMsg("receiver", Call([] { return 23; }), ownReply, 0, forResult);
              }),
              23);
}

TEST_F(SyncSendTest, StoppingTheReceiverEndsTheWait)
{
    std::promise<void> busy;
    receiver.SendAgileMsg(&receiver, Call([&] {
        busy.set_value();
        while (!receiver.isCancelled()) {
            std::this_thread::yield();
        }
        return 0;
    }));
    busy.get_future().wait();
    std::vector<std::unique_ptr<std::thread>> threads;
    auto answer = std::async(std::launch::async, [this] { return Send([] { return 0; }); });
    module.UnRegisterTask("receiver");
    ASSERT_EQ(answer.wait_for(limit), std::future_status::ready);
    EXPECT_THAT(answer.get(), testing::AnyOf(0, -1));  // it was sent in time to be handled still, or it was not
}

TEST_F(SyncSendTest, CancellingTheSenderEndsItsWait)
{
    Framework::Module other("other");
    ASSERT_EQ(other.RegisterTask(&sender, false), 0);
    std::promise<void> sending;
    std::promise<int> answer;
    sender.SendAgileMsg(&sender, Call([&] {
        std::string ownReply;
        answer.set_value(sender.SyncSendDirectMsg("receiver", Call([&] {
                                                      sending.set_value();
                                                      while (!receiver.isCancelled()) {
                                                          std::this_thread::yield();
                                                      }
                                                      return 0;
                                                  }),
                                                  ownReply, foreverMs, forResult));
        return 0;
    }));
    sending.get_future().wait();
    sender.cancel();
    auto result = answer.get_future();
    EXPECT_EQ(result.wait_for(limit), std::future_status::ready);
    receiver.cancel();
    EXPECT_EQ(result.get(), -1);
    other.UnRegisterTask("sender");
}

}  // namespace
