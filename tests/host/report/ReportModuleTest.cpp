// SPDX-License-Identifier: Apache-2.0
// The library as the agent uses it: loaded, fed by other threads, stopped.
#include <gtest/gtest.h>

#include "framework/Engine.h"
#include "framework/Message.h"
#include "host/sdk/Config.h"
#include "support/TemporaryDirectory.h"

namespace {

TEST(ReportModuleTest, AlarmsReachTheFileThatTheSettingsNameBeforeTheStopReturns)
{
    const TemporaryDirectory directory;
    {
        Framework::Engine engine;
        engine.config().setString(SDK::Config::alarmsFile, directory / "alarms");
        std::string error;
        ASSERT_TRUE(engine.LoadModule(CE_REPORT_MODULE, error)) << error;
        Framework::Task* data = engine.FindTask("data_comm_report_task");
        Framework::Task* commands = engine.FindTask("cmd_comm_report_task");
        ASSERT_NE(data, nullptr);
        ASSERT_NE(commands, nullptr);
        EXPECT_NE(commands->SendAgileMsg(commands, new Framework::CmdMessage("feature_exception_1", "\x1b[2J\n")), 0);
        for (int n = 0; n < 100; ++n) {
            EXPECT_NE(data->SendAgileMsg(data, new Framework::DataMessage("2", "{\"n\":" + std::to_string(n) + "}")),
                      0);
        }
        EXPECT_NE(data->SendAgileMsg(data, new Framework::DataMessage("2", "no JSON")), 0);
        engine.Stop();
    }
    std::string expected;
    for (int n = 0; n < 100; ++n) {
        expected += "{\"n\":" + std::to_string(n) + "}\n";
    }
    EXPECT_EQ(directory.Read("alarms"), expected);
}

}  // namespace
