// SPDX-License-Identifier: Apache-2.0
#include "ModuleUtils.h"

#include "tests/support/AgentFixture.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using testing::ElementsAre;
using ModuleUtilsTest = Support::AgentFixture;

TEST_F(ModuleUtilsTest, ReportsGoToTheirTaskWithTheirTextsUnchanged)
{
    host.AddFakes();
    EXPECT_TRUE(Engine::SendAlarmMessage("containerescape_0001", R"({"a":"\"é"})"));
    EXPECT_TRUE(Engine::SendDataMessage("77", ""));
    EXPECT_TRUE(Engine::SendUnrepairableException("x", R"(a"b\c)"));
    EXPECT_THAT(host.reports,
                ElementsAre(R"(data_comm_report_task 2 {"a":"\"é"})", "data_comm_report_task 77 ",
                            R"(cmd_comm_report_task feature_exception_1 {"name":"x", "exception":"a"b\c"})"));
}

TEST_F(ModuleUtilsTest, WithoutItsTaskOrWithAFullQueueAReportIsRefused)
{
    {
#ifdef __SANITIZE_ADDRESS__
        // A message that found no task is not released, by decision; the leak check is told so.
        const __lsan::ScopedDisabler disabler;
#endif
        EXPECT_FALSE(Engine::SendUnrepairableException("x", "y"));
    }
    host.Add(std::make_unique<Framework::Task>("data_comm_report_task", "", Framework::TaskCondition::EventLoop, 0));
    EXPECT_FALSE(Engine::SendAlarmMessage("e", "{}"));
}

}  // namespace
