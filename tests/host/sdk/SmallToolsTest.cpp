// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <limits>
#include <set>
#include <thread>

#include "host/sdk/CpuShare.h"
#include "host/sdk/TraceTime.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"

namespace {

using namespace std::chrono_literals;
using SDK::InnerCpuCtrlUtils;
using SDK::StrUtils;
using SDK::TraceTime;
using testing::ElementsAre;

TEST(StrUtilsTest, FormatsAnyLengthAndSplitKeepsEmptyFields)
{
    EXPECT_EQ(StrUtils::Format("%s:%d%%", std::string(10'000, 'x').c_str(), 5), std::string(10'000, 'x') + ":5%");
    std::vector<std::string> parts{"before"};
    StrUtils::Split("a//b/", "/", parts);
    EXPECT_THAT(parts, ElementsAre("a", "", "b", ""));
    StrUtils::Split("aaa", "aa", parts);
    EXPECT_THAT(parts, ElementsAre("", "a"));
    StrUtils::Split("", "/", parts);
    EXPECT_THAT(parts, ElementsAre(""));
    StrUtils::Split("a b", "", parts);
    EXPECT_THAT(parts, ElementsAre("a b"));
    StrUtils::Split(parts[0], " ", parts);
    EXPECT_THAT(parts, ElementsAre("a", "b"));
}

TEST(CryptoCodeUtilsTest, UuidsAreRandomOnesAndDiffer)
{
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::string uuid = SDK::CryptoCodeUtils::GenerateUUID();
        EXPECT_THAT(uuid, testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 1000U);
}

TEST(CpuShareTest, ThePauseMakesTheShare)
{
    using SDK::CpuShare::PauseFor;
    EXPECT_EQ(PauseFor(10ms, 50), 10ms);
    EXPECT_EQ(PauseFor(10ms, 20), 40ms);
    EXPECT_EQ(PauseFor(99ms, 99), 1ms);
    EXPECT_EQ(PauseFor(10ms, 1), 100ms);  // would be 990
    EXPECT_EQ(PauseFor(std::chrono::nanoseconds::max(), 99), 100ms);
    for (const unsigned int percent : {0U, 100U, 1000U}) {
        EXPECT_EQ(PauseFor(10ms, percent), 0ms) << percent;
    }
    EXPECT_EQ(PauseFor(0ns, 50), 0ms);
    for (const unsigned int percent : {1U, 20U, 99U}) {  // a full run and its pause are one turn
        const auto run = SDK::CpuShare::RunTime(percent);
        EXPECT_EQ(run + PauseFor(run, percent), SDK::CpuShare::turn) << percent;
    }
}

TEST(InnerCpuCtrlUtilsTest, LimitsOnlyWhileAShareIsSet)
{
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    InnerCpuCtrlUtils::SetShare(50);
    EXPECT_TRUE(InnerCpuCtrlUtils::IsEnabled());
    EXPECT_EQ(InnerCpuCtrlUtils::GetSuggestedRunTick(), 10'000'000U);
    const auto begin = std::chrono::steady_clock::now();
    InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", 0, 5'000'000);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 5ms);
    InnerCpuCtrlUtils::SetShare(100);
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    EXPECT_GT(InnerCpuCtrlUtils::GetSuggestedRunTick(), std::uint64_t{1} << 62U);
    InnerCpuCtrlUtils::AdjustThreadCpu(nullptr, 0, nullptr, 0, std::numeric_limits<unsigned long>::max());
}

TEST(TimeUtilsTest, TicksCountTheCallingThreadsWorkOnly)
{
    const std::uint64_t before = SDK::TimeUtils::GetCurrentSystemTickUsed();
    std::uint64_t other = 0;
    std::thread([&other] {
        while (other < 20'000'000) {
            other = SDK::TimeUtils::GetCurrentSystemTickUsed();
        }
    }).join();
    const std::uint64_t after = SDK::TimeUtils::GetCurrentSystemTickUsed();
    EXPECT_GE(after, before);
    EXPECT_LT(after - before, other);
}

TEST(TraceTimeTest, HoldsForItsScopeAndItsThread)
{
    EXPECT_FALSE(TraceTime::Current());
    {
        TraceTime::Scope outer;
        EXPECT_FALSE(TraceTime::Current());
        outer.MoveTo(5ns);
        {
            TraceTime::Scope inner;
            inner.MoveTo(0ns);
            EXPECT_EQ(TraceTime::Current(), 0ns);
            std::thread([] { EXPECT_FALSE(TraceTime::Current()); }).join();
        }
        EXPECT_EQ(TraceTime::Current(), 5ns);
    }
    EXPECT_FALSE(TraceTime::Current());
}

}  // namespace
