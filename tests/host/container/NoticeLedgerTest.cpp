// SPDX-License-Identifier: Apache-2.0
#include "host/container/NoticeLedger.h"

#include <gmock/gmock.h>

namespace {

using Engine::NoticeLedger;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(NoticeLedgerTest, DeadMakeRoomFirstThenTheIdle)
{
    NoticeLedger ledger;
    const int full = static_cast<int>(NoticeLedger::limit);
    for (int tid = 1; tid <= full; ++tid) {
        ledger.Insert(tid, seconds{tid}, true);
    }
    ledger.MarkDead(500, seconds{1000});
    ledger.MarkDead(400, seconds{1001});
    EXPECT_TRUE(ledger.IsKnown(1, seconds{1002}));
    EXPECT_FALSE(ledger.IsKnown(400, seconds{1002}));

    EXPECT_THAT(ledger.MakeRoom(1), ElementsAre(500, 400));
    ledger.Insert(1001, seconds{1001}, true);
    ledger.Insert(1002, seconds{1002}, true);
    const std::vector<int> idle = ledger.MakeRoom(1);
    ASSERT_EQ(idle.size(), NoticeLedger::batch);
    EXPECT_EQ(idle.front(), 2) << "1 was active just now";
    EXPECT_FALSE(ledger.MayHold(2));
    EXPECT_THAT(ledger.MakeRoom(1), IsEmpty());
}

TEST(NoticeLedgerTest, DeadExpireUnlessTheirIdLivesAgain)
{
    NoticeLedger ledger;
    ledger.Insert(1, seconds{1}, true);
    ledger.Insert(2, seconds{1}, true);
    ledger.MarkDead(1, seconds{10});
    ledger.MarkDead(2, seconds{10});
    ledger.Insert(2, seconds{11}, true);
    EXPECT_THAT(ledger.TakeExpired(seconds{12}), IsEmpty());
    EXPECT_THAT(ledger.TakeExpired(seconds{13}), ElementsAre(1));
    EXPECT_TRUE(ledger.IsKnown(2, seconds{20}));
}

TEST(NoticeLedgerTest, AfterALossNothingIsCertainAndThereMayBeMoreThanKnown)
{
    NoticeLedger ledger;
    for (int tid = 1; tid <= 550; ++tid) {
        ledger.Insert(tid, seconds{tid}, true);
    }
    EXPECT_THAT(ledger.MakeRoom(10), IsEmpty());
    ledger.Doubt(100);
    EXPECT_FALSE(ledger.IsKnown(550, seconds{600}));
    EXPECT_TRUE(ledger.MayHold(550));
    ledger.MakeRoom(1);
    EXPECT_LE(ledger.Size() + 100, NoticeLedger::limit);
    ledger.Insert(550, seconds{600}, true);
    EXPECT_TRUE(ledger.IsKnown(550, seconds{601}));
}

}  // namespace
