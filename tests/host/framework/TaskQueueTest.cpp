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
using testing::ElementsAre;
using QueuedMessage = std::shared_ptr<Framework::Message>;

// No thread of its own: the case's thread is the task's.
class QueueTask : public Framework::Task {
public:
    explicit QueueTask(unsigned int capacity) : Task("queue_task", "", TaskCondition::EventLoop, capacity) {}

    // The message adds a line to `handled`.
    int Put(const std::string& line, unsigned long events = 1)
    {
        return Put([this, line] { return handled.push_back(line), 0; }, events);
    }
    int Put(std::function<int()> call, unsigned long events = 1)
    {
        QueuedMessage message = std::make_shared<CallMessage>(std::move(call), events);
        return EnqueueMsg(message);
    }
    int InterceptMsg(QueuedMessage& /*message*/) override { return intercepting ? 1 : 0; }

    bool intercepting = false;
    std::vector<std::string> handled;
};

TEST(TaskQueueTest, AFullQueueCountsItsLossInEvents)
{
    QueueTask task(2);
    const SDK::Counters::Counter& lostEverywhere = SDK::Counters::Get(SDK::CounterName::queueLost);
    const std::uint64_t lostBefore = lostEverywhere;
    EXPECT_EQ(task.Put("a", 5), 0);
    EXPECT_EQ(task.Put("b", 5), 0);
    EXPECT_EQ(task.Put("c", 7), -1);
    EXPECT_EQ(task.LostEvents(), 7U);
    EXPECT_EQ(lostEverywhere - lostBefore, 7U);
    EXPECT_EQ(task.BulkConsumeMsg(1), 1);
    EXPECT_EQ(task.Put("d"), 0) << "there is room again";
}

TEST(TaskQueueTest, HandlesInOrderAtMostAsManyAsAskedWhateverTheHandlersDo)
{
    QueueTask task(200);
    for (int i = 100; i < 200; ++i) {  // more than are taken from the queue at once
        task.Put(std::to_string(i));
    }
    EXPECT_EQ(task.BulkConsumeMsg(90), 90);
    EXPECT_EQ(task.BulkConsumeMsg(90), 10);
    EXPECT_TRUE(std::is_sorted(task.handled.begin(), task.handled.end()));
    EXPECT_EQ(task.handled.size(), 100U);

    task.handled.clear();
    task.Put([]() -> int { throw 42; });
    task.Put([&task] {
        task.Put("inner");
        task.BulkConsumeMsg(8);
        return task.Put("outer");
    });
    EXPECT_EQ(task.BulkConsumeMsg(8), 3);
    EXPECT_THAT(task.handled, ElementsAre("inner", "outer"));
    task.intercepting = true;
    task.Put("kept by the interceptor");
    EXPECT_EQ(task.BulkConsumeMsg(8), 1);
    EXPECT_EQ(task.handled.size(), 2U);
}

TEST(TaskQueueTest, DoesNotSleepOnWhatAnEarlierPassLeft)
{
    QueueTask task(8);
    task.Put("a");
    task.Put("b");
    EXPECT_EQ(WaitBriefly(task.Waiter()), -1);
    EXPECT_EQ(task.BulkConsumeMsg(1), 1);
    EXPECT_EQ(WaitBriefly(task.Waiter()), -1);
    EXPECT_EQ(task.BulkConsumeMsg(1), 1);
}

class TaskQueueThreadTest : public testing::Test {
protected:
    TaskQueueThreadTest() { module.RegisterTask(&task, false); }
    ~TaskQueueThreadTest() override { module.UnRegisterTask("task"); }

    Framework::Engine engine;
    Framework::Module module{"module"};
    Journal journal;
    JournalTask task{"task", journal};  // 64 messages at most
};

// One message at a time, each sent at the moment when the receiver has handled the last and goes to sleep: the handler
// holds it back for up to some ten microseconds, another time each round, so that the next message comes at every such
// moment. The sender spins, it has to be quick.
TEST_F(TaskQueueThreadTest, NoMessageWaitsForTheTimeToBeUp)
{
    const auto handled = std::make_shared<std::atomic<int>>(0);
    for (int round = 1; round <= 50'000; ++round) {
        task.SendAgileMsg(&task, Call([handled] {
            for (int left = ++*handled * 7 % 20011; left > 0; --left) {
                __asm__ volatile("");  // keeps the loop
            }
            return 0;
        }));
        const auto end = std::chrono::steady_clock::now() + limit;
        while (*handled != round) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << "slept through message " << round;
        }
    }
}

TEST_F(TaskQueueThreadTest, SeveralProducersKeepTheirOwnOrderAndLoseNothing)
{
    constexpr int messagesEach = 20'000;
    std::array<int, 3> handled{};  // by producer; consumer's thread
    bool inOrder = true;
    std::atomic<unsigned long> refused{0};
    const auto produce = [&](int& last) {
        for (int i = 0; i < messagesEach; ++i) {
            QueuedMessage message(Call([&inOrder, &last, i] {
                inOrder = inOrder && last == i;
                last = i + 1;
                return 0;
            }));
            while (task.EnqueueMsg(message) != 0) {  // it is full now and then
                ++refused;
                std::this_thread::yield();
            }
        }
    };
    std::vector<std::thread> threads;
    for (int& last : handled) {
        threads.emplace_back(produce, std::ref(last));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::string reply;
    EXPECT_EQ(task.SyncSendDirectMsg("task", Call([] { return 0; }), reply, foreverMs, 2), 0);
    EXPECT_THAT(handled, testing::Each(messagesEach));
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(task.LostEvents(), refused.load());
}

}  // namespace
