// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <pthread.h>

#include <array>
#include <csignal>
#include <stdexcept>

#include "framework/Module.h"
#include "host/framework/Support.h"

namespace {

using namespace FrameworkTest;
using testing::ElementsAre;
using StartResult = Framework::Engine::StartResult;

// A periodic task whose runs are counted in the journal, without waiting.
class PeriodicTask : public JournalTask {
public:
    explicit PeriodicTask(Journal& journal) : JournalTask("periodic", journal, "feature", TaskCondition::Periodic) {}
    int Run() override
    {
        journal.Add("Run");
        return 0;
    }
};

class ThrowingTask : public JournalTask {
public:
    explicit ThrowingTask(Journal& journal) : JournalTask("throwing", journal) {}
    int Run() override
    {
        journal.Add("Run");
        throw std::runtime_error("bad run");
    }
};

// Answers every document with a policy of its feature that has one task, the periodic one.
class PeriodicPolicies : public Framework::AbstractPolicyCallback {
public:
    Framework::Policy* invoke(const std::string& name, const std::string& /*content*/,
                              Framework::Policy*& /*slot*/) const override
    {
        auto task = std::make_unique<Framework::TaskPolicy>("periodic");
        task->periodSeconds = 1;
        auto* feature = new Framework::FeaturePolicy(name);
        feature->Add(std::move(task));
        return feature;
    }
};

class TaskThreadTest : public testing::Test {
protected:
    Framework::Engine engine;
    Framework::Module module{"module"};
    Journal journal;
};

TEST_F(TaskThreadTest, AFailedInitMeansUnInitWithoutRun)
{
    JournalTask task("failing", journal);
    task.initResult = 5;
    ASSERT_EQ(module.RegisterTask(&task, false), 0);
    EXPECT_EQ(engine.WaitStarted("failing", limit), StartResult::InitFailed);
    EXPECT_THAT(journal.Lines(), ElementsAre("failing Init", "failing UnInit"));
    EXPECT_THAT(engine.RunningTasks(), ElementsAre());
    EXPECT_EQ(module.UnRegisterTask("failing"), 0);
}

TEST_F(TaskThreadTest, GoesOnAfterARunThatThrows)
{
    ThrowingTask task(journal);
    ASSERT_EQ(module.RegisterTask(&task, false), 0);
    EXPECT_EQ(journal.WaitFor(3).size(), 3U);
    module.UnRegisterTask("throwing");
}

TEST_F(TaskThreadTest, HasTheTasksNameAndNoSignals)
{
    JournalTask task("a_task_with_a_long_name", journal);
    ASSERT_EQ(module.RegisterTask(&task, false), 0);
    std::array<char, 16> name{};
    sigset_t blocked;
    std::string reply;
    task.SyncSendDirectMsg("a_task_with_a_long_name", Call([&] {
                               pthread_getname_np(pthread_self(), name.data(), name.size());
                               return pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
                           }),
                           reply, foreverMs, 2);
    module.UnRegisterTask("a_task_with_a_long_name");
    EXPECT_STREQ(name.data(), "a_task_with_a_l");
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
}

// A cancel that were lost would cost a whole sleep each time.
TEST_F(TaskThreadTest, ACancelIsNeverLost)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 500; ++i) {
        JournalTask task("short_lived", journal);
        ASSERT_EQ(module.RegisterTask(&task, false), 0);
        ASSERT_EQ(module.UnRegisterTask("short_lived"), 0);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, limit);
    EXPECT_EQ(journal.Lines().size(), 1000U);
}

TEST_F(TaskThreadTest, APeriodicTaskRunsByItsPolicyAndHandlesMessagesBetween)
{
    PeriodicTask task(journal);
    module.RegisterPolicyCallback("id", new PeriodicPolicies);
    ASSERT_EQ(module.RegisterTask(&task, false), 0);
    ASSERT_TRUE(engine.ApplyPolicy("id", "feature", ""));
    EXPECT_THAT(journal.WaitFor(3), ElementsAre("periodic Init feature/periodic", "Run", "Run"));

    std::string reply;
    EXPECT_EQ(task.SyncSendDirectMsg("periodic", Call([] { return 9; }), reply, foreverMs, 2), 9);
    module.UnRegisterTask("periodic");
}

TEST_F(TaskThreadTest, MayUnregisterItsTaskFromWithin)
{
    auto* task = new JournalTask("leaving", journal);
    ASSERT_EQ(module.RegisterTask(task, true), 0);
    std::string reply;
    JournalTask sender("sender", journal);
    EXPECT_EQ(sender.SyncSendDirectMsg("leaving", Call([this] { return module.UnRegisterTask("leaving"); }), reply,
                                       foreverMs, 2),
              0);
    EXPECT_EQ(engine.FindTask("leaving"), nullptr);
    EXPECT_THAT(journal.WaitFor(2), ElementsAre("leaving Init", "leaving UnInit"));
    JournalTask next("leaving", journal);
    EXPECT_EQ(module.RegisterTask(&next, false), 0) << "its name is free";
    EXPECT_EQ(module.UnRegisterTask("leaving"), 0);
}

}  // namespace
