// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <future>
#include <thread>

#include "host/framework/Support.h"

namespace {

using namespace FrameworkTest;

constexpr int forResult = 2;
constexpr int forDelivery = 1;

class SyncSendTest : public FrameworkCase {
protected:
    int Send(std::function<int()> call, int mode = forResult, long timeoutMs = foreverMs)
    {
        std::string reply = "left from before";
        const int result = sender->SyncSendDirectMsg("receiver", Call(std::move(call)), reply, timeoutMs, mode);
        EXPECT_EQ(reply, "");
        return result;
    }
    // Keeps the receiver in a message until it is cancelled.
    std::function<int()> KeepBusy(std::promise<void>& busy)
    {
        return [this, &busy] {
            busy.set_value();
            while (!receiver->isCancelled()) {
                std::this_thread::yield();
            }
            return 0;
        };
    }

    TestTask* const receiver = Register("receiver");
    TestTask* const sender = Register("sender");
};

TEST_F(SyncSendTest, ReturnsTheResultOfTheReceiverOrDeliveryAsAsked)
{
    EXPECT_EQ(Send([] { return 17; }), 17);
    EXPECT_EQ(Send([] { return 17; }, forDelivery), 0);
    EXPECT_EQ(Send([]() -> int { throw std::runtime_error("no"); }), -1);
    EXPECT_EQ(Send([this] { return receiver->SendDirectMsg("missing", Call([] { return 0; })); }), -1);
    std::string reply;
    EXPECT_EQ(sender->SyncSendDirectMsg("missing", Call([] { return 0; }), reply, foreverMs, forDelivery), -1);
    EXPECT_EQ(sender->SyncSendDirectMsg("receiver", nullptr, reply, foreverMs, forDelivery), -1);
    const auto sendToItself = [&] {
        return receiver->SyncSendDirectMsg("receiver", Call([] { return 23; }), reply, 0, forResult);
    };
    EXPECT_EQ(Send(sendToItself), 23) << "handled at once, no other thread would";
}

// What was refused to its sender is not done afterwards, and what is under way then does no harm.
TEST_F(SyncSendTest, AMessageWhoseSenderGaveUpIsLeftAlone)
{
    std::promise<void> open;
    std::atomic<bool> lateOneRan{false};
    const auto waitForOpening = [opened = open.get_future().share()] {
        return opened.wait(), 0;
    };
    EXPECT_EQ(Send(waitForOpening, forResult, 1), -1) << "handled too late";
    receiver->Send(waitForOpening);  // for a first message that was skipped
    EXPECT_EQ(Send([&lateOneRan] { return lateOneRan = true; }, forResult, 1), -1) << "never handled";
    open.set_value();
    EXPECT_EQ(Send([] { return 0; }), 0);
    EXPECT_FALSE(lateOneRan);
}

TEST_F(SyncSendTest, StoppingTheReceiverEndsTheWait)
{
    std::promise<void> busy;
    receiver->Send(KeepBusy(busy));
    busy.get_future().wait();
    auto answer = std::async(std::launch::async, [this] { return Send([] { return 0; }); });
    module.UnRegisterTask("receiver");
    ASSERT_EQ(answer.wait_for(limit), std::future_status::ready);
    EXPECT_THAT(answer.get(), testing::AnyOf(0, -1));  // it was sent in time to be handled still, or it was not
}

TEST_F(SyncSendTest, CancellingTheSenderEndsItsWait)
{
    std::promise<void> busy;
    std::promise<int> answer;
    sender->Send([&] { return answer.set_value(Send(KeepBusy(busy))), 0; });
    busy.get_future().wait();
    sender->cancel();
    auto result = answer.get_future();
    EXPECT_EQ(result.wait_for(limit), std::future_status::ready);
    receiver->cancel();
    EXPECT_EQ(result.get(), -1);
}

}  // namespace
