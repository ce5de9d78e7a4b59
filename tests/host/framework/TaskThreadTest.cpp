// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <pthread.h>

#include <csignal>
#include <stdexcept>

#include "framework/Module.h"
#include "host/framework/Support.h"

namespace {

using namespace FrameworkTest;

class ThrowingTask : public JournalTask {
public:
    using JournalTask::JournalTask;
    int Run() override
    {
        journal.Add("Run");
        throw std::runtime_error("bad run");
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
    ThrowingTask task("failing", journal);
    task.initResult = 5;
    ASSERT_EQ(module.RegisterTask(&task, false), 0);
    EXPECT_EQ(engine.WaitStarted("failing", limit), Framework::Engine::StartResult::InitFailed);
    EXPECT_THAT(journal.Lines(), testing::ElementsAre("failing Init", "failing UnInit"));
    module.UnRegisterTask("failing");
}

TEST_F(TaskThreadTest, GoesOnAfterARunThatThrows)
{
    ThrowingTask task("throwing", journal);
    ASSERT_EQ(module.RegisterTask(&task, false), 0);
    EXPECT_EQ(journal.WaitFor(3).size(), 3U);
    module.UnRegisterTask("throwing");
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

TEST_F(TaskThreadTest, HasNoSignalsAndMayUnregisterItsTaskFromWithin)
{
    ASSERT_EQ(module.RegisterTask(new JournalTask("leaving", journal), true), 0);
    JournalTask next("leaving", journal);
    EXPECT_EQ(module.RegisterTask(&next, false), -1) << "its name is taken";
    sigset_t blocked;
    const auto leave = [&] {
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        return module.UnRegisterTask(next.name());
    };
    std::string reply;
    EXPECT_EQ(next.SyncSendDirectMsg(next.name(), Call(leave), reply, foreverMs, 2), 0);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
    EXPECT_EQ(engine.FindTask(next.name()), nullptr);
    EXPECT_EQ(journal.WaitFor(2).size(), 2U);
    EXPECT_EQ(module.RegisterTask(&next, false), 0) << "its name is free";
    EXPECT_EQ(module.UnRegisterTask(next.name()), 0);
}

}  // namespace
