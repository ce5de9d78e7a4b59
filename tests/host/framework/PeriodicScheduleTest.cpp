// SPDX-License-Identifier: Apache-2.0
#include "host/framework/PeriodicSchedule.h"

#include <gtest/gtest.h>

namespace {

using Framework::PeriodicSchedule;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr PeriodicSchedule::Clock::time_point start{seconds{1000}};

TEST(PeriodicScheduleTest, RunsFirstAfterTheDelayAndThenOnAFixedGrid)
{
    PeriodicSchedule schedule(seconds{10}, seconds{30}, start);
    EXPECT_EQ(schedule.Remaining(start), seconds{10});
    EXPECT_EQ(schedule.Remaining(start + seconds{12}), seconds{0});

    schedule.MarkRun(start + seconds{12});
    EXPECT_EQ(schedule.Remaining(start + seconds{12}), seconds{28}) << "a late run must not move the grid";
}

TEST(PeriodicScheduleTest, SkipsTheRunsThatALongOneMissed)
{
    PeriodicSchedule schedule(seconds{0}, seconds{30}, start);
    schedule.MarkRun(start + seconds{95});
    EXPECT_EQ(schedule.Remaining(start + seconds{95}), seconds{25});
}

TEST(PeriodicScheduleTest, NeverRunsWithoutAPeriod)
{
    for (const seconds period : {seconds{0}, seconds{-5}}) {
        PeriodicSchedule schedule(seconds{10}, period, start);
        schedule.MarkRun(start + seconds{100});
        EXPECT_FALSE(schedule.Remaining(start + seconds{100}).has_value());
    }
}

TEST(PeriodicScheduleTest, RoundsUpSoThatNoWaitEndsTooEarly)
{
    const PeriodicSchedule schedule(seconds{-3}, seconds{1}, start);
    EXPECT_EQ(schedule.Remaining(start - nanoseconds{1}), milliseconds{1});
    EXPECT_EQ(schedule.Remaining(start), milliseconds{0}) << "a negative delay is none";
}

}  // namespace
