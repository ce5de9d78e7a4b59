// SPDX-License-Identifier: Apache-2.0
#include "framework/Engine.h"

#include <gmock/gmock.h>

#include "host/framework/Support.h"

namespace {

using namespace FrameworkTest;
using testing::ElementsAre;
using testing::HasSubstr;
using StartResult = Framework::Engine::StartResult;

// Registers its tasks in Init and writes its own life into the journal.
class JournalModule : public Framework::Module {
public:
    JournalModule(const std::string& name, Journal& journal, std::vector<std::string> tasks)
        : Module(name), journal(journal), tasks(std::move(tasks))
    {
    }
    int Init() override
    {
        for (const std::string& task : tasks) {
            RegisterTask(new JournalTask(task, journal), true);
        }
        journal.Add(name() + " Init");
        return initResult;
    }
    int UnInit() override
    {
        journal.Add(name() + " UnInit");
        return 0;
    }

    int initResult = 0;

private:
    Journal& journal;
    std::vector<std::string> tasks;
};

class EngineTest : public testing::Test {
protected:
    Journal journal;  // outlives the tasks that the engine owns
    Framework::Engine engine;
};

TEST_F(EngineTest, StopsTasksLastStartedFirstAndThenModulesInReverse)
{
    ASSERT_TRUE(engine.AddModule(std::make_unique<JournalModule>("A", journal, std::vector<std::string>{"a"})));
    ASSERT_EQ(engine.WaitStarted("a", limit), StartResult::Running);
    ASSERT_TRUE(engine.AddModule(std::make_unique<JournalModule>("B", journal, std::vector<std::string>{"b"})));
    ASSERT_EQ(engine.WaitStarted("b", limit), StartResult::Running);
    EXPECT_THAT(engine.RunningTasks(), ElementsAre("a", "b"));

    engine.Stop();
    EXPECT_THAT(journal.Lines(),
                ElementsAre("A Init", "a Init", "B Init", "b Init", "b UnInit", "a UnInit", "B UnInit", "A UnInit"));
    EXPECT_EQ(engine.FindTask("a"), nullptr);
    engine.Stop();
}

TEST_F(EngineTest, AModuleWhoseInitFailsKeepsNoTask)
{
    auto module = std::make_unique<JournalModule>("A", journal, std::vector<std::string>{"a"});
    module->initResult = 3;
    EXPECT_FALSE(engine.AddModule(std::move(module)));
    EXPECT_EQ(engine.FindTask("a"), nullptr);
    EXPECT_EQ(engine.WaitStarted("a", limit), StartResult::NotRunning);
    engine.Stop();
    EXPECT_THAT(journal.Lines(), ElementsAre("A Init", "A UnInit"));
}

TEST_F(EngineTest, NamesAreUniqueAndUnknownOnesHarmless)
{
    Framework::Module module("module");
    JournalTask first("name", journal);
    JournalTask second("name", journal);
    EXPECT_EQ(module.RegisterTask(&first, false), 0);
    EXPECT_EQ(module.RegisterTask(&second, false), -1);
    EXPECT_EQ(module.FindTask("name"), &first);
    EXPECT_EQ(module.RegisterTask(nullptr, false), -1);
    EXPECT_EQ(module.UnRegisterTask("never registered"), -1);
    EXPECT_EQ(module.UnRegisterTask("name"), 0);
    EXPECT_EQ(module.UnRegisterTask("name"), -1);
    EXPECT_THAT(journal.Lines(), ElementsAre("name Init", "name UnInit"));
}

// The undefined-behaviour sanitizer rightly objects to such a call; what it says is not what is tested here.
__attribute__((noinline, no_sanitize("undefined"))) Framework::Task* FindThrough(Framework::Engine* engine)
{
    return engine->FindTask("name");
}

// A failed dynamic_cast of the application object arrives here; calling on it must not end the process.
TEST_F(EngineTest, ANullEngineFindsNothing)
{
    Framework::Engine* volatile none = nullptr;
    EXPECT_EQ(FindThrough(none), nullptr);
}

TEST_F(EngineTest, IsTheApplicationThatModulesFind)
{
    EXPECT_EQ(dynamic_cast<Framework::Engine*>(&Poco::Util::Application::instance()), &engine);
}

TEST_F(EngineTest, LoadsALibraryAndRunsItsTask)
{
    std::string error;
    ASSERT_TRUE(engine.LoadModule(PLUGIN_PATH, error)) << error;
    EXPECT_EQ(engine.WaitStarted("plugin_task", limit), StartResult::Running);
    std::string reply;
    JournalTask sender("sender", journal);
    EXPECT_EQ(sender.SyncSendDirectMsg("plugin_task", Call([] { return 3; }), reply, foreverMs, 2), 3)
        << "the default Run handles messages";
}

TEST_F(EngineTest, SaysWhyALibraryCannotBeLoaded)
{
    std::string error;
    EXPECT_FALSE(engine.LoadModule("/nonexistent/module.so", error));
    EXPECT_THAT(error, HasSubstr("/nonexistent/module.so"));
    EXPECT_FALSE(engine.LoadModule("libc.so.6", error));
    EXPECT_THAT(error, HasSubstr("CreateModule"));
    ASSERT_TRUE(engine.LoadModule(PLUGIN_PATH, error));
    EXPECT_FALSE(engine.LoadModule(PLUGIN_PATH, error)) << "its task's name is taken, so its Init fails";
    EXPECT_THAT(error, HasSubstr("plugin_module"));
}

}  // namespace
