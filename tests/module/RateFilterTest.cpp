// SPDX-License-Identifier: Apache-2.0
#include "RateFilter.h"

#include <gmock/gmock.h>

#include "tests/support/FakeSystem.h"

namespace {

TEST(RateFilterTest, MergesUntilTheFirstIsOlderThanTheWindowAndKeepsABoundedNumber)
{
    Support::FakeSystem world;
    SDK::RateFilter<std::string> filter{2};
    const auto isSent = [&](std::int64_t second, const std::string& key) {
        world.now = second;
        return filter.CheckAndEnqueue(key, "t");
    };
    EXPECT_TRUE(isSent(100, "a"));
    EXPECT_FALSE(isSent(98, "a"));
    EXPECT_FALSE(isSent(102, "a")) << "two seconds are still within the window";
    EXPECT_EQ(filter.Cache().front().count, 3U);
    EXPECT_TRUE(isSent(103, "a")) << "a merge does not move the window";
    EXPECT_TRUE(isSent(100, "a")) << "an entry from the future does not swallow messages";
    EXPECT_TRUE(isSent(98, "behind"));  // the clock was set back
    EXPECT_TRUE(isSent(102, "new"));
    EXPECT_FALSE(isSent(102, "behind")) << "stale, but shielded";
    for (int key = 1; key <= 1024; ++key) {
        EXPECT_TRUE(isSent(102, std::to_string(key)));
    }
    EXPECT_EQ(filter.Cache().size(), 1025U);
    EXPECT_EQ(filter.Cache().front().msg, "new") << "the oldest made room";
}

}  // namespace
