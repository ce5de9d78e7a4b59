// SPDX-License-Identifier: Apache-2.0
#include "framework/Engine.h"

#include <gmock/gmock.h>

#include "host/framework/Support.h"

namespace {

using namespace FrameworkTest;
using testing::ElementsAre;

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
        return RegisterTask(new JournalTask(name() + "'s task", journal), true) + initResult;
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

TEST(EngineTest, StopsTasksLastStartedFirstAndThenModulesInReverse)
{
    Journal journal;
    Framework::Engine engine;
    ASSERT_TRUE(engine.AddModule(std::make_unique<JournalModule>("A", journal)));
    journal.WaitFor(2);
    EXPECT_FALSE(engine.AddModule(std::make_unique<JournalModule>("bad", journal, 3)));
    EXPECT_EQ(engine.FindTask("bad's task"), nullptr);
    ASSERT_TRUE(engine.AddModule(std::make_unique<JournalModule>("B", journal)));
    journal.WaitFor(5);
    EXPECT_THAT(engine.RunningTasks(), ElementsAre("A's task", "B's task"));

    engine.Stop();
    EXPECT_THAT(journal.Lines(),
                ElementsAre("A Init", "A's task Init", "bad Init", "B Init", "B's task Init", "B's task UnInit",
                            "A's task UnInit", "B UnInit", "bad UnInit", "A UnInit"));
    EXPECT_EQ(engine.FindTask("A's task"), nullptr);
}

}  // namespace
