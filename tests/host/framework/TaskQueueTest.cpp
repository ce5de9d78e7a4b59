// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "framework/Module.h"
#include "host/framework/Support.h"
#include "host/sdk/Counters.h"

namespace {

using namespace FrameworkTest;
using Framework::Message;
using testing::ElementsAre;
using QueuedMessage = std::shared_ptr<Message>;

QueuedMessage Queued(std::function<int()> call, unsigned long events = 1)
{
    return std::make_shared<CallMessage>(std::move(call), events);
}

std::uint64_t LostEverywhere()
{
    return SDK::Counters::Get(SDK::CounterName::queueLost);
}

// No thread of its own: the case's thread is the task's.
class QueueTask : public Framework::Task {
public:
    explicit QueueTask(unsigned int capacity) : Task("queue_task", "", TaskCondition::EventLoop, capacity) {}

    int Put(std::function<int()> call, unsigned long events = 1)
    {
        QueuedMessage message = Queued(std::move(call), events);
        return EnqueueMsg(message);
    }
    int InterceptMsg(QueuedMessage& /*message*/) override { return intercepting ? 1 : 0; }

    bool intercepting = false;
};

TEST(TaskQueueTest, AFullQueueCountsItsLossInEvents)
{
    QueueTask task(2);
    const std::uint64_t lostBefore = LostEverywhere();
    EXPECT_EQ(task.Put([] { return 0; }, 5), 0);
    EXPECT_EQ(task.Put([] { return 0; }, 5), 0);
    EXPECT_EQ(task.Put([] { return 0; }, 7), -1);
    EXPECT_EQ(task.LostEvents(), 7U);
    EXPECT_EQ(LostEverywhere() - lostBefore, 7U);

    EXPECT_EQ(task.BulkConsumeMsg(1), 1);
    EXPECT_EQ(task.Put([] { return 0; }), 0) << "there is room again";
}

TEST(TaskQueueTest, HandlesInOrderAndAtMostAsManyAsAsked)
{
    QueueTask task(200);
    std::vector<int> order;
    for (int i = 0; i < 150; ++i) {
        task.Put([&order, i] {
            order.push_back(i);
            return 0;
        });
    }
    EXPECT_EQ(task.BulkConsumeMsg(100), 100);
    EXPECT_EQ(order.size(), 100U);
    EXPECT_EQ(task.BulkConsumeMsg(100), 50);
    EXPECT_EQ(order.size(), 150U);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(task.BulkConsumeMsg(100), 0);
    EXPECT_EQ(task.BulkConsumeMsg(-1), 0);
}

TEST(TaskQueueTest, AThrowingHandlerEndsItsOwnMessageOnly)
{
    QueueTask task(8);
    int handled = 0;
    task.Put([]() -> int { throw std::runtime_error("bad message"); });
    task.Put([]() -> int { throw 42; });
    task.Put([&handled] { return ++handled; });
    EXPECT_EQ(task.BulkConsumeMsg(8), 3);
    EXPECT_EQ(handled, 1);
}

TEST(TaskQueueTest, TheInterceptorCanKeepAMessage)
{
    QueueTask task(8);
    int handled = 0;
    task.intercepting = true;
    task.Put([&handled] { return ++handled; });
    EXPECT_EQ(task.BulkConsumeMsg(8), 1);
    EXPECT_EQ(handled, 0);
}

TEST(TaskQueueTest, AHandlerMayConsumeMessagesItself)
{
    QueueTask task(8);
    std::vector<std::string> order;
    task.Put([&] {
        order.push_back("outer");
        task.Put([&] {
            order.push_back("inner");
            return 0;
        });
        task.BulkConsumeMsg(8);
        order.push_back("outer again");
        return 0;
    });
    task.BulkConsumeMsg(8);
    EXPECT_THAT(order, ElementsAre("outer", "inner", "outer again"));
}

TEST(TaskQueueTest, DoesNotSleepOnWhatAnEarlierPassLeft)
{
    QueueTask task(8);
    task.Put([] { return 0; });
    task.Put([] { return 0; });
    EXPECT_EQ(WaitBriefly(task.Waiter()), -1);
    EXPECT_EQ(task.BulkConsumeMsg(1), 1);
    EXPECT_EQ(WaitBriefly(task.Waiter()), -1);
    EXPECT_EQ(task.BulkConsumeMsg(1), 1);
    EXPECT_EQ(task.Waiter().WaitAndHandleEvent(0, 8), -1);
}

// One message at a time, each sent at the moment when the receiver has handled the last and goes to sleep.
TEST(TaskQueueTest, NoMessageWaitsForTheTimeToBeUp)
{
    constexpr int rounds = 50'000;
    Framework::Engine engine;
    Framework::Module module("module");
    Journal journal;
    JournalTask task("sleeper", journal);
    ASSERT_EQ(module.RegisterTask(&task, false), 0);
    std::atomic<int> handled{0};
    bool lost = false;
    for (int round = 0; round < rounds && !lost; ++round) {
        task.SendAgileMsg(&task, Call([&handled] {
            Dither(++handled);
            return 0;
        }));
        lost = !SpinUntil([&] { return handled == round + 1; });
    }
    EXPECT_FALSE(lost);
    module.UnRegisterTask("sleeper");
}

TEST(TaskQueueTest, SeveralProducersKeepTheirOwnOrderAndLoseNothing)
{
    constexpr int producers = 3;
    constexpr int messagesEach = 20'000;
    Framework::Engine engine;
    Framework::Module module("module");
    Journal journal;
    JournalTask task("consumer", journal);  // 64 messages at most: it is full now and then
    ASSERT_EQ(module.RegisterTask(&task, false), 0);

    std::array<int, producers> handled{};  // consumer's thread
    bool inOrder = true;
    std::atomic<unsigned long> refused{0};
    const auto produce = [&](int producer) {
        for (int i = 0; i < messagesEach; ++i) {
            QueuedMessage message = Queued([&, producer, i] {
                int& last = handled.at(static_cast<std::size_t>(producer));
                inOrder = inOrder && last == i;
                last = i + 1;
                return 0;
            });
            while (task.EnqueueMsg(message) != 0) {
                ++refused;
                std::this_thread::yield();
            }
        }
    };
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back(produce, producer);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::string reply;
    EXPECT_EQ(task.SyncSendDirectMsg("consumer", Call([] { return 0; }), reply, foreverMs, 2), 0);
    module.UnRegisterTask("consumer");
    EXPECT_THAT(handled, testing::Each(messagesEach));
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(task.LostEvents(), refused.load());
}

TEST(TaskQueueTest, ConsumersAreKnownByTypeAndName)
{
    QueueTask producer(1);
    QueueTask first(1);
    QueueTask second(1);
    EXPECT_EQ(producer.AddConsumer(7, "b", &second), 0);
    EXPECT_EQ(producer.AddConsumer(7, "a", &first), 0);
    EXPECT_EQ(producer.AddConsumer(7, "a", &second), -1);
    EXPECT_EQ(producer.AddConsumer(8, "a", &second), 0);
    EXPECT_EQ(producer.AddConsumer(7, nullptr, &second), -1);
    EXPECT_THAT(producer.Consumers(7), ElementsAre(&first, &second));

    EXPECT_EQ(producer.DelConsumer(7, "a", &second), -1) << "another task's registration";
    EXPECT_EQ(producer.DelConsumer(7, "a", &first), 0);
    EXPECT_EQ(producer.DelConsumer(7, "a", &first), -1);
    EXPECT_THAT(producer.Consumers(7), ElementsAre(&second));
}

}  // namespace
