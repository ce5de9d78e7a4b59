// SPDX-License-Identifier: Apache-2.0
#include "ModuleUtils.h"

#include "Monitor.h"
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

    // Takes no message at all.
    class FullTask : public Framework::Task {
    public:
        explicit FullTask(const std::string& name) : Task(name, "", Framework::TaskCondition::EventLoop, 0) {}
    };
};

TEST_F(ModuleUtilsTest, AlarmTravelsAsReportTwoWhateverItsEvent)
{
    AddHostTasks();
    EXPECT_TRUE(Engine::SendAlarmMessage("containerescape_0001", R"({"a":"\"é"})"));
    EXPECT_TRUE(Engine::SendDataMessage("77", ""));
    const auto reports = Taken(*data, data->reports);
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].Type(), "2");
    EXPECT_EQ(reports[0].Content(), R"({"a":"\"é"})");
    EXPECT_EQ(reports[1].Type(), "77");
    EXPECT_EQ(reports[1].Content(), "");
    EXPECT_THAT(
        logs.From("ModuleUtils"),
        ElementsAre(Record(Message::PRIO_INFORMATION, 124,
                           "send alarm message to queue success. event=containerescape_0001, msgLen=12"),
                    Record(Message::PRIO_INFORMATION, 88, "send data message to queue success. event=77, msgLen=0")));
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
    AddTask(std::make_unique<FullTask>("data_comm_report_task"));
    EXPECT_FALSE(Engine::SendAlarmMessage("e", "{}"));
    EXPECT_FALSE(Engine::SendDataMessage("e", "{}"));
    EXPECT_THAT(logs.From("ModuleUtils"),
                ElementsAre(Record(Message::PRIO_ERROR, 121, "send alarm message to queue failed. event=e, msgLen=2"),
                            Record(Message::PRIO_ERROR, 85, "send data message to queue failed. event=e, msgLen=2")));
}

TEST_F(ModuleUtilsTest, ALoggerAboveTheLinesPriorityStaysSilent)
{
    AddHostTasks();
    Settle(*data);
    logs.SetLevel(Message::PRIO_NOTICE);
    EXPECT_TRUE(Engine::SendAlarmMessage("e", "{}"));
    EXPECT_THAT(logs.From("ModuleUtils"), testing::IsEmpty());
}

TEST(MonitorTest, EntersAtOnceAndLeavesWithTheScope)
{
    std::vector<std::string> calls;
    {
        const Engine::Monitor monitor([&] { calls.emplace_back("enter"); }, [&] { calls.emplace_back("leave"); });
        EXPECT_THAT(calls, ElementsAre("enter"));
    }
    EXPECT_THAT(calls, ElementsAre("enter", "leave"));
    EXPECT_THROW(Engine::Monitor({}, [] {}), std::bad_function_call);
}

}  // namespace
