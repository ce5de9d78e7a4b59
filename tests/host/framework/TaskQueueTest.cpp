// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>

#include "framework/Module.h"
#include "host/framework/Support.h"
#include "host/sdk/Counters.h"

namespace {

using namespace FrameworkTest;
using QueuedMessage = std::shared_ptr<Framework::Message>;

// No thread of its own: the case's thread is the task's.
class QueueTask : public Framework::Task {
public:
    explicit QueueTask(unsigned int capacity) : Task("queue_task", "", Framework::TaskCondition::EventLoop, capacity) {}

    int Put(std::function<int()> call, unsigned long events = 1)
    {
        QueuedMessage message = std::make_shared<CallMessage>(std::move(call), events);
        return EnqueueMsg(message);
    }
    int PutNumber(int number, unsigned long events = 1)
    {
        return Put([this, number] { return handled.push_back(number), 0; }, events);
    }

    std::vector<int> handled;
};

TEST(TaskQueueTest, AFullQueueCountsItsLossInEvents)
{
    QueueTask task(2);
    const SDK::Counters::Counter& lostEverywhere = SDK::Counters::Get(SDK::CounterName::queueLost);
    const std::uint64_t lostBefore = lostEverywhere;
    EXPECT_EQ(task.PutNumber(1, 5), 0);
    EXPECT_EQ(task.PutNumber(2, 5), 0);
    EXPECT_EQ(task.PutNumber(3, 7), -1);
    EXPECT_EQ(task.LostEvents(), 7U);
    EXPECT_EQ(lostEverywhere - lostBefore, 7U);
    EXPECT_EQ(task.BulkConsumeMsg(1), 1);
    EXPECT_EQ(task.PutNumber(4), 0) << "there is room again";
}

TEST(TaskQueueTest, HandlesInOrderAtMostAsManyAsAskedWhateverTheHandlersDo)
{
    QueueTask task(200);
    for (int i = 0; i < 100; ++i) {  // more than are taken from the queue at once
        task.PutNumber(i);
    }
    EXPECT_EQ(WaitBriefly(task.Waiter()), -1);
    EXPECT_EQ(task.BulkConsumeMsg(90), 90);
    EXPECT_EQ(WaitBriefly(task.Waiter()), -1) << "no sleep on what is left";
    EXPECT_EQ(task.BulkConsumeMsg(90), 10);
    EXPECT_TRUE(std::is_sorted(task.handled.begin(), task.handled.end()));
    EXPECT_EQ(task.handled.size(), 100U);

    task.handled.clear();
    task.Put([]() -> int { throw 42; });
    task.Put([&task] {
        task.PutNumber(1);
        task.BulkConsumeMsg(8);
        return task.PutNumber(2);
    });
    EXPECT_EQ(task.BulkConsumeMsg(8), 3);
    EXPECT_THAT(task.handled, testing::ElementsAre(1, 2));
}

class TaskQueueThreadTest : public testing::Test {
protected:
    TaskQueueThreadTest() { module.RegisterTask(&task, false); }
    // Does not give up the processor: the next sender has to be quick. False at the limit.
    bool AwaitHandled(int count) const
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (handled != count && std::chrono::steady_clock::now() < end) {
        }
        return handled == count;
    }

    std::atomic<int> handled{0};
    Journal journal;
    JournalTask task{"task", journal};  // 64 messages at most
    Framework::Engine engine;
    Framework::Module module{"module"};  // goes first and stops the task
};

// One message at a time, each sent at the moment when the receiver has handled the last and goes to sleep: the handler
// holds it back for up to some ten microseconds, another time each round, so that the next message comes at every such
// moment.
TEST_F(TaskQueueThreadTest, NoMessageWaitsForTheTimeToBeUp)
{
    for (int round = 1; round <= 50'000; ++round) {
        task.SendAgileMsg(&task, Call([this] {
            for (int left = ++handled * 7 % 20011; left > 0; --left) {
                __asm__ volatile("");  // keeps the loop
            }
            return 0;
        }));
        ASSERT_TRUE(AwaitHandled(round)) << "slept through message " << round;
    }
}

TEST_F(TaskQueueThreadTest, SeveralProducersLoseNothingUncounted)
{
    constexpr int messagesEach = 20'000;
    std::atomic<unsigned long> refused{0};
    const auto produce = [&] {
        for (int sent = 0; sent < messagesEach; ++sent) {
            while (task.SendAgileMsg(&task, Call([this] { return ++handled; })) == 0) {  // it is full now and then
                ++refused;
                std::this_thread::yield();
            }
        }
    };
    std::array<std::thread, 3> threads;
    std::generate(threads.begin(), threads.end(), [&] { return std::thread(produce); });
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    EXPECT_TRUE(AwaitHandled(3 * messagesEach)) << handled;
    EXPECT_EQ(task.LostEvents(), refused.load());
}

}  // namespace
