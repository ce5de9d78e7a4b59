// SPDX-License-Identifier: Apache-2.0
#include "RateLimiter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace Engine {
namespace {

using TimePoint = RateLimiter::TimePoint;
using Seconds = std::chrono::duration<long>;
using std::chrono::milliseconds;

// When a call comes, in milliseconds.
using Order = long (*)(long call, std::mt19937_64& random);
constexpr Order orders[] = {
    [](long call, std::mt19937_64&) { return call / 400 * 3500 + call % 400 / 60; },  // in bursts, with pauses
    [](long call, std::mt19937_64& random) { return 3 * call - static_cast<long>(random() % 40); },  // a little late
    [](long call, std::mt19937_64& random) { return random() % 50 == 0 ? 0 : 3 * call; },            // very late
    [](long, std::mt19937_64& random) { return static_cast<long>(random() % 5000); },
};

// Whatever the order, every single result must be that of the plain rule.
TEST(RateLimiterTest, CountsLikeAFullPassWhateverTheOrder)
{
    for (const Order order : orders) {
        std::mt19937_64 random{1};
        RateLimiter limiter;
        // The rule in its plain form: all times in one vector, one pass for each call.
        std::vector<TimePoint> plain;
        const auto update = [&plain](Seconds window, std::size_t maxCount, TimePoint now) {
            const TimePoint latest = plain.empty() ? now : std::max(now, std::ranges::max(plain));
            plain.push_back(now);
            std::erase_if(plain, [&](TimePoint time) { return latest - time > window; });
            return plain.size() <= maxCount;
        };
        for (long call = 0; call < 4000; ++call) {
            const TimePoint now{milliseconds{order(call, random)}};
            const Seconds window{random() % 64 == 0 ? 0 : 1 + static_cast<long>(random() % 2)};
            const auto maxCount = static_cast<unsigned short>(random() % 1000);
            if (order == orders[0] && limiter.IsIdle(Seconds{2}, now)) {  // needs rising times
                limiter = {};
            }
            ASSERT_EQ(limiter.Update(window, maxCount, now), update(window, maxCount, now)) << call;
            ASSERT_EQ(limiter.Size(), plain.size()) << call;
        }
        const TimePoint latest{milliseconds{4000L * 3500}};
        limiter.Update(Seconds{1}, 1, latest);
        EXPECT_FALSE(limiter.IsIdle(Seconds{1}, latest + Seconds{1}));
        EXPECT_TRUE(limiter.IsIdle(Seconds{1}, latest + milliseconds{1001}));
    }
}

}  // namespace
}  // namespace Engine
