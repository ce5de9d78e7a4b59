// SPDX-License-Identifier: Apache-2.0
#include "ModuleUtils.h"

#include "tests/support/AgentFixture.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// A message that found no task is not released, by decision; the leak check is told so.
struct LeaksMessages {
#ifdef __SANITIZE_ADDRESS__
    __lsan::ScopedDisabler disabler;
#endif
};

using Poco::Message;
using Support::LogRecord;
using testing::ElementsAre;

class ModuleUtilsTest : public Support::AgentFixture {
protected:
    LogRecord Record(Message::Priority priority, int line, const std::string& text) const
    {
        return {logs.RootName(), priority, text, "ModuleUtils", line};
    }
};

TEST_F(ModuleUtilsTest, AlarmTravelsAsReportTwoWhateverItsEvent)
{
    AddHostTasks();
    EXPECT_TRUE(Engine::SendAlarmMessage("containerescape_0001", R"({"a":"\"é"})"));
    EXPECT_TRUE(Engine::SendDataMessage("77", ""));
    const auto reports = Taken(*data, data->reports);
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].Type() + reports[0].Content(), R"(2{"a":"\"é"})");
    EXPECT_EQ(reports[1].Type() + reports[1].Content(), "77");
}

TEST_F(ModuleUtilsTest, CommandKeepsItsTextsUnescaped)
{
    using CommandTask = Support::ReportTask<Framework::CmdMessage>;
    auto* commands = AddTask(std::make_unique<CommandTask>("cmd_comm_report_task"));
    EXPECT_TRUE(Engine::SendUnrepairableException("x", R"(a"b\c)"));
    const auto sent = Taken(*commands, commands->reports);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].Id(), "feature_exception_1");
    EXPECT_EQ(sent[0].Content(), R"({"name":"x", "exception":"a"b\c"})");
}

TEST_F(ModuleUtilsTest, WithoutItsTaskAMessageFailsWithTwoLines)
{
    {
        [[maybe_unused]] const LeaksMessages scope;
        EXPECT_FALSE(Engine::SendUnrepairableException("x", "y"));
    }
    EXPECT_THAT(logs.From("ModuleUtils"),
                ElementsAre(Record(Message::PRIO_ERROR, 36, "send cmd message failed. taskPtr=null"),
                            Record(Message::PRIO_ERROR, 60,
                                   "send cmd message to queue failed. msgId=feature_exception_1, msgLen=29")));
}

TEST_F(ModuleUtilsTest, AFullQueueRefusesAMessage)
{
    struct FullTask : Framework::Task {
        FullTask() : Task("data_comm_report_task", "", Framework::TaskCondition::EventLoop, 0) {}
    };
    AddTask(std::make_unique<FullTask>());
    EXPECT_FALSE(Engine::SendAlarmMessage("e", "{}"));
    EXPECT_THAT(logs.From("ModuleUtils"),
                ElementsAre(Record(Message::PRIO_ERROR, 121, "send alarm message to queue failed. event=e, msgLen=2")));
}

}  // namespace
