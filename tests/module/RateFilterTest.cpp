// SPDX-License-Identifier: Apache-2.0
#include "RateFilter.h"

#include <gmock/gmock.h>

#include "tests/support/FakeSystem.h"

namespace {

class RateFilterTest : public testing::Test {
protected:
    bool At(std::int64_t second, const std::string& key)
    {
        world.now = second;
        return filter.CheckAndEnqueue(key, "t");
    }

    Support::FakeSystem world;
    SDK::RateFilter<std::string> filter{2};
};

TEST_F(RateFilterTest, MergesUntilTheFirstIsOlderThanTheWindow)
{
    EXPECT_TRUE(At(100, "a"));
    EXPECT_FALSE(At(98, "a"));
    EXPECT_FALSE(At(101, "a"));
    EXPECT_FALSE(At(102, "a")) << "a merge does not move the window, but two seconds are still within it";
    EXPECT_EQ(filter.Cache().front().count, 4U);
    EXPECT_TRUE(At(103, "a"));
    EXPECT_TRUE(At(100, "a")) << "an entry from the future does not swallow messages";
}

TEST_F(RateFilterTest, CleanUpStopsAtTheFirstFreshEntry)
{
    At(200, "fresh");
    At(198, "behind");  // the clock was set back
    EXPECT_TRUE(At(201, "new"));
    EXPECT_FALSE(At(201, "behind")) << "stale, but shielded";
}

TEST_F(RateFilterTest, HoldsAtMostOneEntryMoreThanItsLimit)
{
    for (int key = 1; key <= 1026; ++key) {
        EXPECT_TRUE(At(100, std::to_string(key)));
    }
    EXPECT_EQ(filter.Cache().size(), 1025U);
    EXPECT_EQ(filter.Cache().front().msg, "2") << "the oldest made room";
}

}  // namespace
