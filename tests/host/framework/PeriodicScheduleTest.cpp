// SPDX-License-Identifier: Apache-2.0
#include "host/framework/PeriodicSchedule.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using Framework::PeriodicSchedule;

constexpr PeriodicSchedule::Clock::time_point start{1000s};

TEST(PeriodicScheduleTest, RunsFirstAfterTheDelayAndThenOnAFixedGrid)
{
    PeriodicSchedule schedule(10s, 30s, start);
    EXPECT_EQ(schedule.Remaining(start + 1ns), 10s) << "rounded up: no wait ends too early";
    EXPECT_EQ(schedule.Remaining(start + 12s), 0s);
    schedule.MarkRun(start + 12s);
    EXPECT_EQ(schedule.Remaining(start + 12s), 28s) << "a late run must not move the grid";
    schedule.MarkRun(start + 105s);
    EXPECT_EQ(schedule.Remaining(start + 105s), 25s) << "the runs that a long one missed are skipped";

    EXPECT_EQ(PeriodicSchedule(-3s, 1s, start).Remaining(start), 0s) << "a negative delay is none";
    EXPECT_FALSE(PeriodicSchedule(10s, 0s, start).Remaining(start + 100s)) << "no run without a period";
    EXPECT_FALSE(PeriodicSchedule(10s, -5s, start).Remaining(start + 100s));
}

}  // namespace
