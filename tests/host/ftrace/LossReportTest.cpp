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

}  // namespace
}  // namespace Engine
