// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <json/value.h>
#include <signal.h>

#include <future>

#include "host/agent/Console.h"
#include "host/agent/Signals.h"
#include "host/agent/StatusReport.h"
#include "host/agent/Watchdog.h"
#include "sdk/JsonUtils.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace Agent;
using namespace std::chrono_literals;

TEST(StatusReportTest, StatisticsReplaceTheFileAndLeaveNoDraft)
{
    const TemporaryDirectory directory;
    directory.Write("stats", "old, and longer than what follows");
    EXPECT_FALSE(WriteStatistics(directory / "stats", {{"trace.read", 1UL << 60U}}));
    EXPECT_EQ(directory.Read("stats"), "{\"trace.read\":1152921504606846976}\n");
    std::filesystem::create_directory(directory / "taken");
    EXPECT_TRUE(WriteStatistics(directory / "taken", {}));
    const std::filesystem::directory_iterator entries(directory.Path());
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 2);  // "stats" and "taken"
}

// In a process of their own: they change what signals do there.
TEST(SignalsDeathTest, AStopGoesBeforeAReloadAndStays)
{
    const auto scenario = [] {
        Signals signals;
        bool isGood = signals.Wait(0ms) == Signals::Event::Timeout;
        ::kill(::getpid(), SIGHUP);
        isGood = isGood && signals.Wait(60s) == Signals::Event::Reload;
        ::kill(::getpid(), SIGHUP);
        ::kill(::getpid(), SIGTERM);
        isGood = isGood && signals.Wait(60s) == Signals::Event::Stop && signals.Wait(60s) == Signals::Event::Stop;
        ::raise(SIGPIPE);
        ::_exit(isGood ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0), "");
}

TEST(WatchdogDeathTest, EndsTheProcessWhenTheTimeIsUpAndNotBefore)
{
    const auto scenario = [](std::chrono::milliseconds bound, std::chrono::milliseconds work) {
        {
            const Watchdog watchdog(bound, "the test");
            std::promise<void>().get_future().wait_for(work);
        }
        ::_exit(0);
    };
    EXPECT_EXIT(scenario(10ms, 60s), testing::ExitedWithCode(failed), "the test takes too long");
    EXPECT_EXIT(scenario(60s, 10ms), testing::ExitedWithCode(0), "");
}

}  // namespace
