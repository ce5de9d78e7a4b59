// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/LossReport.h"

#include <gmock/gmock.h>

#include "host/ftrace/TracefsInstance.h"

namespace Engine {
namespace {

TEST(KernelLossTest, ReadsTheCountsOfAStatsFile)
{
    const KernelLoss loss = KernelLoss::Parse(
        "entries: 9\noverrun: 12\ncommit overrun: 3\nbytes: 7\noldest event ts: 1.2\nnow ts: 1.3\ndropped events: 40\n"
        "read events: 5\n");
    EXPECT_EQ(loss.overrun, 12U) << "and not the commit overrun's";
    EXPECT_EQ(loss.dropped, 43U);
    EXPECT_EQ(KernelLoss::Parse("overrun: ?\ncut off: ").overrun, 0U);
    EXPECT_EQ(KernelLoss::Parse("").dropped, 0U);
}

TEST(LossReportTest, SpeaksOncePerMinuteAndOnlyOfNewLosses)
{
    LossReport report;
    LossReport::Clock::time_point now{};
    EXPECT_FALSE(report.Report(now));
    report.Add(KernelLoss{1, 0});
    EXPECT_TRUE(report.Report(now));
    EXPECT_FALSE(report.Report(now + LossReport::pause)) << "nothing new";

    DeliverySums sums;
    sums.lostQueue = 1;
    report.Add(sums);
    EXPECT_FALSE(report.Report(now + LossReport::pause / 2));
    EXPECT_TRUE(report.Report(now + LossReport::pause));
}

TEST(BufferSizeTest, IsBoundedForAllCpusTogether)
{
    EXPECT_EQ(TracefsInstance::DefaultBufferKb(2), 8192U);
    EXPECT_EQ(TracefsInstance::DefaultBufferKb(128) * 128, 256U * 1024);
    EXPECT_GT(TracefsInstance::DefaultBufferKb(0), 0U);
}

}  // namespace
}  // namespace Engine
