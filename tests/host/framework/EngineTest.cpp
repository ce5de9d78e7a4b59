// SPDX-License-Identifier: Apache-2.0
// Modules, tasks and their messages. Every wait has a condition; the limit only turns a hang into a failure.
#include "framework/Engine.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "host/framework/PeriodicSchedule.h"
#include "host/sdk/Counters.h"

namespace {

using namespace Framework;
using namespace std::chrono_literals;
using testing::ElementsAre;

// Far above what a loaded machine needs, and below `foreverMs`, which a sleep without wake-up would last.
constexpr auto limit = 20s;
constexpr int foreverMs = 60'000;
constexpr int forDelivery = 1;
constexpr int forResult = 2;

// What happened in the case that runs. Needs no lock: no two of its tasks start or stop at the same time.
std::vector<std::string> journal;

int Note(const std::string& line, int result = 0)
{
    journal.push_back(line);
    return result;
}

// Runs a function on the thread of the receiving task.
struct CallMessage : Message {
    explicit CallMessage(std::function<int()> call) : call(std::move(call)) {}
    int MessageHandle(void* /*target*/) override { return call(); }
    unsigned long EventCount() const override { return 7; }

    std::function<int()> call;
};

// Waits without end: only a wake-up brings it on. Handles one message at a time.
struct TestTask : Task {
    explicit TestTask(const std::string& name, const std::string& feature = "")
        : Task(name, feature, TaskCondition::EventLoop, 100)
    {
    }
    int Init() override
    {
        const std::string own = taskPolicy.Get() != nullptr ? " with its own" : "";
        return Note(name() + " Init" + (featurePolicy.Get() != nullptr ? " " + featurePolicy.Get()->Name() + own : ""),
                    name() == "failing" ? 5 : 0);
    }
    int UnInit() override
    {
        Send(std::bind(Note, name() + " is sent a message meanwhile", 0));  // refused unless it is restarted
        return Note(name() + " UnInit");
    }
    int Run() override
    {
        Waiter().WaitAndHandleEvent(foreverMs, 16);
        BulkConsumeMsg(1);
        return std::exchange(runFails, false) ? throw std::runtime_error("bad run") : 0;
    }
    bool Send(std::function<int()> call) { return SendAgileMsg(this, new CallMessage(std::move(call))) != 0; }
    int Ask(const std::string& name, std::function<int()> call, int mode = forResult, long timeoutMs = foreverMs)
    {
        std::string reply;
        return SyncSendDirectMsg(name, new CallMessage(std::move(call)), reply, timeoutMs, mode);
    }

    bool runFails = false;
};

struct TestModule : Module {
    explicit TestModule(const std::string& name) : Module(name) {}
    int Init() override { return RegisterTask(new TestTask(name() + "'s task"), true) + (name() == "bad" ? 3 : 0); }
    int UnInit() override { return Note(name() + " UnInit"); }
};

struct EngineTest : testing::Test {
    EngineTest() { journal.clear(); }
    void TearDown() override { engine.Stop(); }  // no thread uses the fixture when its parts go

    TestTask* Register(const std::string& name, const std::string& feature = "")
    {
        auto* const task = new TestTask(name, feature);
        EXPECT_EQ(module.RegisterTask(task, true), 0);
        engine.WaitStarted(name, limit);
        return task;
    }

    Engine engine;
    Module module{"module"};
    TestTask caller{"caller"};  // sends only
};

TEST_F(EngineTest, StopsTasksLastStartedFirstAndThenModulesInReverse)
{
    for (const char* name : {"A", "bad", "B"}) {
        EXPECT_EQ(engine.AddModule(std::make_unique<TestModule>(name)), name != std::string("bad"));
        engine.WaitStarted(name + std::string("'s task"), limit);
    }
    EXPECT_THAT(engine.RunningTasks(), ElementsAre("A's task", "B's task"));
    engine.Stop();
    EXPECT_THAT(journal, ElementsAre("A's task Init", "B's task Init", "B's task UnInit", "A's task UnInit", "B UnInit",
                                     "bad UnInit", "A UnInit"));
}

// Makes a policy named after the document, with a child for the task "first".
struct TestPolicies : AbstractPolicyCallback {
    Policy* invoke(const std::string& /*name*/, const std::string& content, Policy*& slot) const override
    {
        EXPECT_EQ(slot == nullptr ? "" : slot->Name(), content == "one" ? "" : "one") << "the policy in force is shown";
        if (content == "bad") {
            throw std::runtime_error("bad document");
        }
        auto policy = std::make_unique<FeaturePolicy>(content);
        policy->Add(std::make_unique<TaskPolicy>("first"));
        return content == "refused" ? nullptr : policy.release();
    }
};

TEST_F(EngineTest, APolicyStartsTheTasksOfItsFeatureANewOneRestartsThemARefusedOneLeavesThemAlone)
{
    module.RegisterPolicyCallback("id", new TestPolicies);
    TestTask* const first = Register("first", "feature");
    Register("stranger", "another feature");
    EXPECT_FALSE(first->Send([] { return 0; })) << "no thread would handle it";
    const std::pair<const char*, bool> contents[] = {{"one", true}, {"refused", false}, {"bad", false}, {"two", true}};
    for (const auto& [content, isTaken] : contents) {
        EXPECT_FALSE(engine.ApplyPolicy("unknown id", "feature", content));
        EXPECT_EQ(engine.ApplyPolicy("id", "feature", content), isTaken);
        engine.WaitStarted("first", limit);
    }
    EXPECT_EQ(caller.Ask("first", [] { return 0; }), 0);
    Register("late", "feature");
    EXPECT_THAT(journal, ElementsAre("first Init one with its own", "first UnInit", "first Init two with its own",
                                     "first is sent a message meanwhile", "late Init two"));
}

// Without a thread of its own: the case is its thread.
TEST_F(EngineTest, ATaskHandlesInOrderAtMostAsManyAsAskedWhateverTheHandlersDoAndCountsWhatItLoses)
{
    const SDK::Counters::Counter& lost = SDK::Counters::Get(SDK::CounterName::queueLost);
    const std::uint64_t before = lost;
    const std::function<int()> late = std::bind(Note, "late", 0);
    {
        TestTask task("no thread");
        for (int n = 100; task.Send(std::bind(Note, std::to_string(n), 0)); ++n) {
        }
        EXPECT_EQ(task.LostEvents(), 7U) << "the last one did not fit";
        EXPECT_EQ(task.BulkConsumeMsg(90), 90) << "more than are taken from the queue at once";
        EXPECT_EQ(task.BulkConsumeMsg(90), 10);
        task.Send([]() -> int { throw 42; });
        task.Send([&] { return task.Send(late) && task.BulkConsumeMsg(8) == 1 && task.Send(late); });
        EXPECT_EQ(task.BulkConsumeMsg(8), 3);
        EXPECT_TRUE(std::is_sorted(journal.begin(), journal.end()));
        EXPECT_EQ(journal.size(), 102U);
        task.Send(late);
    }
    EXPECT_EQ(lost - before, 14U) << "what is left in a queue is lost";
}

// A cancel that were lost would cost a whole sleep each time.
TEST_F(EngineTest, ATaskThatIsStoppedAtOnceOrWhoseInitFailedStillHasItsUnInit)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 500; ++i) {
        module.RegisterTask(new TestTask("short-lived"), true);
        EXPECT_EQ(module.UnRegisterTask("short-lived"), 0);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, limit);
    Register("failing");
    EXPECT_EQ(engine.WaitStarted("failing", limit), Engine::StartResult::InitFailed);
    EXPECT_EQ(journal.size(), 1002U);
}

TEST_F(EngineTest, WhatWasSentBeforeAStopIsStillHandledAndWhatComesLaterRefused)
{
    TestTask* const task = Register("task");
    const auto leave = [&] {
        for (const char* line : {"1", "2", "3"}) {
            task->Send(std::bind(Note, line, 0));
        }
        return module.UnRegisterTask("task");
    };
    EXPECT_EQ(caller.Ask("task", leave), 0) << "from within";
    EXPECT_EQ(caller.Ask("task", leave), -1);
    engine.Stop();
    EXPECT_THAT(journal, ElementsAre("task Init", "1", "2", "3", "task UnInit"));
}

TEST_F(EngineTest, ASynchronousSendReturnsTheResultOrDeliveryAsAsked)
{
    TestTask* const receiver = Register("receiver");
    const std::function<int()> answer = std::bind(Note, "asked", 17);
    EXPECT_EQ(caller.Ask("receiver", answer), 17);
    EXPECT_EQ(caller.Ask("receiver", answer, forDelivery), 0);
    EXPECT_EQ(caller.Ask("receiver", []() -> int { throw 42; }), -1);
    EXPECT_EQ(caller.Ask("missing", answer), -1);
    EXPECT_EQ(caller.Ask("receiver", [receiver] { return receiver->runFails = true; }), 1);
    EXPECT_EQ(caller.Ask("receiver", [&] { return receiver->Ask("receiver", answer, forResult, 0); }), 17)
        << "handled at once, no other thread would";
}

// What was refused to its sender is not done afterwards, and what is under way then does no harm.
TEST_F(EngineTest, AMessageWhoseSenderGaveUpOrIsCancelledIsLeftAlone)
{
    Register("receiver");
    TestTask* const sender = Register("sender");
    const auto tooLate = std::bind(Note, "too late", 0);
    std::promise<int> open;
    std::atomic<bool> isClosed = false;
    const auto waitForOpening = [opened = open.get_future().share(), &isClosed] {
        isClosed = true;
        return opened.get();
    };
    while (!isClosed) {  // one that is skipped does not begin
        EXPECT_EQ(caller.Ask("receiver", waitForOpening, forResult, 1), -1) << "handled too late";
    }
    EXPECT_EQ(caller.Ask("receiver", tooLate, forResult, 1), -1);
    std::promise<void> asking;
    sender->Send([&] {
        asking.set_value();
        return sender->Ask("receiver", tooLate);
    });
    asking.get_future().wait();
    auto stop = std::async(std::launch::async, [this] { return module.UnRegisterTask("sender"); });
    EXPECT_EQ(stop.wait_for(limit), std::future_status::ready);
    open.set_value(0);
    EXPECT_EQ(caller.Ask("receiver", [] { return 0; }), 0);
    EXPECT_THAT(journal, ElementsAre("receiver Init", "sender Init", "sender UnInit"));
}

TEST(PeriodicScheduleTest, KeepsToItsGridAndNeverEndsAWaitTooEarly)
{
    constexpr PeriodicSchedule::Clock::time_point start{1000s};
    PeriodicSchedule schedule(10s, 30s, start);
    EXPECT_EQ(schedule.Remaining(start + 1ns), 10s);
    schedule.MarkRun(start + 105s);
    EXPECT_EQ(schedule.Remaining(start + 105s), 25s) << "the runs that a long one missed are skipped";
    EXPECT_FALSE(PeriodicSchedule(10s, 0s, start).Remaining(start + 100s)) << "no run without a period";
}

}  // namespace
