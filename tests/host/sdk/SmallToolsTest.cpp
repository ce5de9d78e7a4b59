// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <thread>

#include "host/sdk/CpuShare.h"
#include "sdk/TimeUtils.h"

namespace {

using namespace std::chrono_literals;

TEST(CpuShareTest, ThePauseMakesTheShare)
{
    using SDK::CpuShare::PauseFor;
    EXPECT_EQ(PauseFor(10ms, 20), 40ms);
    EXPECT_EQ(PauseFor(99ms, 99), 1ms);
    EXPECT_EQ(PauseFor(10ms, 1), 100ms);  // would be 990
    EXPECT_EQ(PauseFor(std::chrono::nanoseconds::max(), 99), 100ms);
    EXPECT_EQ(PauseFor(10ms, 0), 0ms);
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
    EXPECT_LT(SDK::TimeUtils::GetCurrentSystemTickUsed() - before, other);
}

}  // namespace
