// SPDX-License-Identifier: Apache-2.0
#include "framework/Engine.h"

#include "host/framework/PeriodicSchedule.h"
#include "host/framework/Support.h"

namespace {

using namespace FrameworkTest;
using namespace std::chrono_literals;
using testing::ElementsAre;

class EngineTest : public FrameworkCase {};

// Registers a task in Init and writes its own life into the journal.
class JournalModule : public Framework::Module {
public:
    JournalModule(const std::string& name, Journal& journal, int initResult = 0)
        : Module(name), journal(journal), initResult(initResult)
    {
    }
    int Init() override
    {
        journal.Add(name() + " Init");
        return RegisterTask(new TestTask(name() + "'s task", journal), true) + initResult;
    }
    int UnInit() override
    {
        journal.Add(name() + " UnInit");
        return 0;
    }

private:
    Journal& journal;
    int initResult;
};

TEST_F(EngineTest, StopsTasksLastStartedFirstAndThenModulesInReverse)
{
    ASSERT_TRUE(engine.AddModule(std::make_unique<JournalModule>("A", journal)));
    journal.WaitFor(2);
    EXPECT_FALSE(engine.AddModule(std::make_unique<JournalModule>("bad", journal, 3)));
    EXPECT_EQ(engine.FindTask("bad's task"), nullptr);
    ASSERT_TRUE(engine.AddModule(std::make_unique<JournalModule>("B", journal)));
    journal.WaitFor(5);
    EXPECT_THAT(engine.RunningTasks(), ElementsAre("A's task", "B's task"));

    engine.Stop();
    EXPECT_THAT(journal.WaitFor(10),
                ElementsAre("A Init", "A's task Init", "bad Init", "B Init", "B's task Init", "B's task UnInit",
                            "A's task UnInit", "B UnInit", "bad UnInit", "A UnInit"));
}

// Makes a policy named after the document, with a child for the task "first". "throw" and "refuse" do what they say.
class TestPolicies : public Framework::AbstractPolicyCallback {
public:
    explicit TestPolicies(Framework::Policy*& seen) : seen(seen) {}

    Framework::Policy* invoke(const std::string& /*name*/, const std::string& content,
                              Framework::Policy*& slot) const override
    {
        seen = slot;
        if (slot != nullptr) {
            slot->changed = true;
        }
        if (content == "throw") {
            throw std::runtime_error("bad document");
        }
        auto policy = std::make_unique<Framework::FeaturePolicy>(content);
        policy->Add(std::make_unique<Framework::TaskPolicy>("first"));
        return content == "refuse" ? nullptr : policy.release();
    }

private:
    Framework::Policy*& seen;
};

TEST_F(EngineTest, APolicyStartsTheTasksOfItsFeatureANewOneRestartsThemARefusedOneLeavesThemAlone)
{
    Framework::Policy* seen = nullptr;  // what the callback found in the slot
    module.RegisterPolicyCallback("id", new TestPolicies(seen));
    TestTask* const first = Register("first", "feature");
    Register("stranger", "another feature");
    EXPECT_FALSE(first->Send([] { return 0; })) << "no thread would handle it";
    EXPECT_TRUE(engine.ApplyPolicy("id", "feature", "one"));
    EXPECT_EQ(seen, nullptr);
    journal.WaitFor(1);
    for (const char* content : {"refuse", "throw"}) {
        EXPECT_FALSE(engine.ApplyPolicy("id", "feature", content));
        ASSERT_NE(seen, nullptr) << "the policy in force is shown to the callback";
        EXPECT_EQ(seen->Name(), "one");
        EXPECT_FALSE(seen->changed) << "no successor came";
    }
    EXPECT_FALSE(engine.ApplyPolicy("unknown id", "feature", "two"));
    EXPECT_TRUE(engine.ApplyPolicy("id", "feature", "two"));
    journal.WaitFor(3);
    Register("late", "feature");
    EXPECT_THAT(journal.WaitFor(4),
                ElementsAre("first Init one/first", "first UnInit", "first Init two/first", "late Init two"));
    EXPECT_THAT(engine.RunningTasks(), ElementsAre("first", "late"));
}

TEST(PeriodicScheduleTest, RunsFirstAfterTheDelayAndThenOnAFixedGrid)
{
    using Framework::PeriodicSchedule;
    constexpr PeriodicSchedule::Clock::time_point start{1000s};
    PeriodicSchedule schedule(10s, 30s, start);
    EXPECT_EQ(schedule.Remaining(start + 1ns), 10s) << "rounded up: no wait ends too early";
    EXPECT_EQ(schedule.Remaining(start + 12s), 0s);
    schedule.MarkRun(start + 12s);
    EXPECT_EQ(schedule.Remaining(start + 12s), 28s) << "a late run must not move the grid";
    schedule.MarkRun(start + 105s);
    EXPECT_EQ(schedule.Remaining(start + 105s), 25s) << "the runs that a long one missed are skipped";

    EXPECT_EQ(PeriodicSchedule(-3s, 1s, start).Remaining(start), 0s) << "a negative delay is none";
    EXPECT_FALSE(PeriodicSchedule(10s, 0s, start).Remaining(start + 100s)) << "no run without a period";
}

}  // namespace
