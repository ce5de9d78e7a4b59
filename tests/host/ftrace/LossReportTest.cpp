// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/LossReport.h"

#include <gmock/gmock.h>

namespace Engine {
namespace {

TEST(KernelLossTest, ReadsTheCountsOfAStatsFile)
{
    const KernelLoss loss = KernelLoss::Parse("entries: 9\ncommit overrun: 3\noverrun: 12\ndropped events: 40\n");
    EXPECT_EQ(loss.overrun, 12U) << "and not the commit overrun's";
    EXPECT_EQ(loss.dropped, 43U);
}

TEST(LossReportTest, SpeaksOncePerMinuteAndOnlyOfNewLosses)
{
    LossReport report;
    LossReport::Clock::time_point now{};
    EXPECT_FALSE(report.Report(now));
    report.Add(KernelLoss{1, 0});
    EXPECT_TRUE(report.Report(now));
    EXPECT_FALSE(report.Report(now + LossReport::pause)) << "nothing new";
    report.Add(KernelLoss{0, 1});
    EXPECT_FALSE(report.Report(now + LossReport::pause / 2));
    EXPECT_TRUE(report.Report(now + LossReport::pause));
}

}  // namespace
}  // namespace Engine
