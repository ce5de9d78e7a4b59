// SPDX-License-Identifier: Apache-2.0
#include "host/container/NoticeLedger.h"

#include <gmock/gmock.h>

namespace {

using Engine::NoticeLedger;
using std::chrono::seconds;

TEST(NoticeLedgerTest, AfterALossNothingIsCertainAndThereMayBeMoreThanKnown)
{
    NoticeLedger ledger;
    for (int tid = 1; tid <= 550; ++tid) {
        ledger.Insert(tid, seconds{tid}, true);
    }
    EXPECT_THAT(ledger.MakeRoom(10), testing::IsEmpty());
    ledger.Doubt(200);
    EXPECT_FALSE(ledger.IsKnown(550, seconds{600}));
    EXPECT_TRUE(ledger.MayHold(550));
    ledger.MarkDead(500, seconds{601});
    EXPECT_THAT(ledger.MakeRoom(1), testing::IsSupersetOf({500, 1, 2}));
    EXPECT_EQ(ledger.Size() + 200 + 1, NoticeLedger::limit) << "room for the one, and no more";
    ledger.Insert(550, seconds{602}, true);
    EXPECT_TRUE(ledger.IsKnown(550, seconds{603}));
}

}  // namespace
