// SPDX-License-Identifier: Apache-2.0
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>

#include "host/framework/Support.h"
#include "host/sdk/Counters.h"

namespace {

using namespace FrameworkTest;
using testing::ElementsAre;

class TaskTest : public FrameworkCase {};

// Without a thread of its own: the case is its thread.
TEST_F(TaskTest, HandlesInOrderAtMostAsManyAsAskedWhateverTheHandlersDoAndCountsWhatIsRefused)
{
    constexpr int capacity = 100;  // more than are taken from the queue at once
    TestTask task("no_thread", journal, "", capacity);
    std::vector<int> handled;
    const auto number = [&handled](int n) {
        return [&handled, n] {
            return handled.push_back(n), 0;
        };
    };
    for (int i = 0; i < capacity; ++i) {
        EXPECT_TRUE(task.Send(number(i)));
    }
    const std::uint64_t lostBefore = SDK::Counters::Get(SDK::CounterName::queueLost);
    EXPECT_EQ(task.SendAgileMsg(&task, new CallMessage(number(-1), 7)), 0) << "it is full";
    EXPECT_EQ(task.LostEvents(), 7U);
    EXPECT_EQ(SDK::Counters::Get(SDK::CounterName::queueLost) - lostBefore, 7U);

    EXPECT_EQ(WaitBriefly(task.Waiter()), -1);
    EXPECT_EQ(task.BulkConsumeMsg(90), 90);
    EXPECT_EQ(WaitBriefly(task.Waiter()), -1) << "no sleep on what is left";
    EXPECT_EQ(task.BulkConsumeMsg(90), 10);
    EXPECT_TRUE(std::is_sorted(handled.begin(), handled.end()));
    EXPECT_EQ(handled.size(), 100U);

    handled.clear();
    task.Send([]() -> int { throw 42; });
    task.Send([&] {
        task.Send(number(1));
        task.BulkConsumeMsg(8);
        return task.Send(number(2)) ? 0 : -1;
    });
    EXPECT_EQ(task.BulkConsumeMsg(8), 3);
    EXPECT_THAT(handled, ElementsAre(1, 2));
    {
        TestTask dropping("dropping", journal);
        dropping.SendAgileMsg(&dropping, new CallMessage(number(0), 3));
    }
    EXPECT_EQ(SDK::Counters::Get(SDK::CounterName::queueLost) - lostBefore, 10U) << "what is left in a queue is lost";
}

// One message at a time, each sent at the moment when the receiver has handled the last and goes to sleep: the handler
// holds it back for up to some ten microseconds, another time each round, so that the next message comes at every such
// moment.
TEST_F(TaskTest, NoMessageWaitsForTheTimeToBeUp)
{
    std::atomic<int> handled{0};
    TestTask* const task = Register("task");
    for (int round = 1; round <= 50'000; ++round) {
        task->Send([&handled] {
            for (int left = ++handled * 7 % 20011; left > 0; --left) {
                __asm__ volatile("");  // keeps the loop
            }
            return 0;
        });
        const auto end = std::chrono::steady_clock::now() + limit;
        while (handled != round) {  // does not give up the processor: the next message has to be quick
            ASSERT_LT(std::chrono::steady_clock::now(), end) << "slept through message " << round;
        }
    }
}

TEST_F(TaskTest, WhatWasSentBeforeAStopIsStillHandledAndWhatComesLaterRefused)
{
    TestTask* const task = Register("task");
    std::atomic<int> handled{0};
    task->Send([&] {
        for (int i = 0; i < 3; ++i) {
            task->Send([&handled] { return ++handled, 0; });
        }
        task->cancel();
        return 0;
    });
    journal.WaitFor(2);
    EXPECT_EQ(handled, 3);
    EXPECT_FALSE(task->Send([] { return 0; }));
    EXPECT_EQ(task->LostEvents(), 0U);
}

TEST_F(TaskTest, AFailedInitMeansUnInitWithoutRunAndAFailedRunAnotherOne)
{
    auto* const failing = new TestTask("failing", journal);
    failing->initResult = 5;
    ASSERT_EQ(module.RegisterTask(failing, true), 0);
    EXPECT_EQ(engine.WaitStarted("failing", limit), Framework::Engine::StartResult::InitFailed);
    EXPECT_THAT(journal.WaitFor(2), ElementsAre("failing Init", "failing UnInit"));
    auto* const throwing = new TestTask("throwing", journal);
    throwing->runFails = true;
    ASSERT_EQ(module.RegisterTask(throwing, true), 0);
    EXPECT_THAT(journal.WaitFor(5), ElementsAre("failing Init", "failing UnInit", "throwing Init", "Run", "Run"));
}

// A cancel that were lost would cost a whole sleep each time.
TEST_F(TaskTest, ACancelIsNeverLost)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 500; ++i) {
        Register("short_lived");
        ASSERT_EQ(module.UnRegisterTask("short_lived"), 0);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, limit);
    EXPECT_EQ(journal.WaitFor(1000).size(), 1000U);
}

TEST_F(TaskTest, HasNoSignalsAndMayUnregisterItselfFromWithin)
{
    Register("leaving");
    TestTask next("leaving", journal);
    EXPECT_EQ(module.RegisterTask(&next, false), -1) << "its name is taken";
    sigset_t blocked;
    const auto leave = [&] {
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        return module.UnRegisterTask("leaving");
    };
    std::string reply;
    EXPECT_EQ(next.SyncSendDirectMsg("leaving", Call(leave), reply, foreverMs, 2), 0);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
    EXPECT_EQ(engine.FindTask("leaving"), nullptr);
    EXPECT_EQ(journal.WaitFor(2).size(), 2U);
    EXPECT_EQ(module.RegisterTask(&next, false), 0) << "its name is free";
    EXPECT_EQ(module.UnRegisterTask("leaving"), 0);
}

}  // namespace
