// SPDX-License-Identifier: Apache-2.0
#include "host/container/NoticeLedger.h"

#include <gmock/gmock.h>

#include <numeric>
#include <vector>

namespace {

using Engine::NoticeLedger;
using std::chrono::seconds;

TEST(NoticeLedgerTest, MakesRoomWithTheDeadThenWithTheIdleThenWithThoseThatHaveJustEnded)
{
    NoticeLedger ledger;
    const int full = static_cast<int>(NoticeLedger::limit);
    for (int tid = 1; tid <= full; ++tid) {
        ledger.Insert(tid, seconds{tid}, true);
    }
    EXPECT_THAT(ledger.MakeRoom(0, seconds{700}), testing::IsEmpty());
    ledger.MarkDead(300, seconds{600});
    ledger.MarkDead(200, seconds{700});
    const std::vector<int> taken = ledger.MakeRoom(3, seconds{700});
    EXPECT_THAT(taken, testing::IsSupersetOf({300, 1, 2}));
    EXPECT_TRUE(ledger.HoldsDead(200));
    EXPECT_EQ(taken.size(), NoticeLedger::batch);
    EXPECT_TRUE(ledger.IsKnown(full, seconds{700}));
}

TEST(NoticeLedgerTest, WhatWasWithdrawnUnheardCountsAndMayHaveMadeATableOverflow)
{
    NoticeLedger ledger;
    ledger.Insert(1, seconds{1}, true);
    ledger.Insert(2, seconds{1}, true);
    ledger.Unheard({2, 3}, seconds{2});
    EXPECT_TRUE(ledger.IsKnown(1, seconds{2}));
    EXPECT_FALSE(ledger.IsKnown(2, seconds{2})) << "the record may be of an earlier bearer of the id";
    std::vector<int> many(NoticeLedger::limit);
    std::iota(many.begin(), many.end(), 10);
    ledger.Unheard(many, seconds{3});
    EXPECT_FALSE(ledger.IsKnown(1, seconds{3}));
    ledger.MakeRoom(1, seconds{4});
    EXPECT_LT(ledger.Size(), NoticeLedger::limit);
}

}  // namespace
