// SPDX-License-Identifier: Apache-2.0
#include "RateLimiter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <utility>
#include <vector>

namespace Engine {
namespace {

using TimePoint = RateLimiter::TimePoint;
using Seconds = std::chrono::duration<long>;
using std::chrono::milliseconds;

constexpr Seconds window{1};

TimePoint At(milliseconds when)
{
    return TimePoint{when};
}

// The rule in its plain form: all times in one vector, one pass for each call.
class FullPass {
public:
    bool Update(const Seconds& limit, unsigned short maxCount, TimePoint now)
    {
        if (!times.empty() && times.back() > now) {
            std::swap(times.back(), now);
        }
        std::erase_if(times, [&](TimePoint time) { return now - time > limit; });
        times.push_back(now);
        return times.size() <= maxCount;
    }

    std::size_t Size() const { return times.size(); }

private:
    std::vector<TimePoint> times;
};

TEST(RateLimiterTest, OneCallMoreThanAllowedIsOverTheLimit)
{
    RateLimiter limiter;
    for (int call = 0; call < 300; ++call) {
        ASSERT_TRUE(limiter.Update(window, 300, At(milliseconds{call})));
    }
    EXPECT_FALSE(limiter.Update(window, 300, At(milliseconds{300})));
    EXPECT_FALSE(limiter.Update(window, 300, At(milliseconds{301})));
    // At 1001 ms the call at 0 ms is more than a window old, the one at 1 ms exactly one window.
    EXPECT_TRUE(limiter.Update(window, 302, At(milliseconds{1001})));
    EXPECT_EQ(limiter.Size(), 302U);
    EXPECT_TRUE(limiter.Update(window, 300, At(milliseconds{2002})));
    EXPECT_EQ(limiter.Size(), 1U);
}

TEST(RateLimiterTest, CallExactlyOneWindowOldStillCounts)
{
    RateLimiter limiter;
    limiter.Update(window, 300, At(milliseconds{0}));
    EXPECT_FALSE(limiter.Update(window, 1, At(milliseconds{1000})));
    EXPECT_TRUE(limiter.Update(window, 2, TimePoint{milliseconds{1000}} + std::chrono::nanoseconds{1}));
}

// Each way in which times may come, against the plain rule: every single result must be the same.
TEST(RateLimiterTest, CountsLikeAFullPassWhateverTheOrder)
{
    using Times = std::function<long(std::mt19937_64 & random, long call)>;  // milliseconds
    const std::pair<const char*, Times> orders[] = {
        {"in order",
         [](auto& random, long call) {
             return call + static_cast<long>(random() % 2);
         }},
        {"bursts",
         [](auto&, long call) {
             return call / 400 * 1500 + call % 7;
         }},
        {"slightly late",
         [](auto& random, long call) {
             return 3 * call - static_cast<long>(random() % 40);
         }},
        {"very late now and then",
         [](auto& random, long call) {
             return random() % 50 == 0 ? 0 : 3 * call;
         }},
        {"at random",
         [](auto& random, long) {
             return static_cast<long>(random() % 5000);
         }},
        {"backwards",
         [](auto&, long call) {
             return 4000 - call;
         }},
    };
    for (const auto& [order, time] : orders) {
        std::mt19937_64 random{1};
        RateLimiter limiter;
        FullPass plain;
        for (long call = 0; call < 4000; ++call) {
            const TimePoint now = At(milliseconds{time(random, call)});
            const Seconds limit{random() % 64 == 0 ? 0 : 1 + static_cast<long>(random() % 2)};
            const auto maxCount = static_cast<unsigned short>(random() % 1000);
            ASSERT_EQ(limiter.Update(limit, maxCount, now), plain.Update(limit, maxCount, now)) << order << " " << call;
            ASSERT_EQ(limiter.Size(), plain.Size()) << order << " " << call;
        }
    }
}

TEST(RateLimiterTest, GivingIdleMemoryBackChangesNoResult)
{
    std::mt19937_64 random{2};
    RateLimiter limiter;
    FullPass plain;
    long now = 0;
    for (int call = 0; call < 20000; ++call) {
        now += random() % 100 == 0 ? 900 + static_cast<long>(random() % 200) : static_cast<long>(random() % 3);
        if (random() % 5 == 0) {
            limiter.ReleaseIfIdle(window, At(milliseconds{now}));
        }
        ASSERT_EQ(limiter.Update(window, 40, At(milliseconds{now})), plain.Update(window, 40, At(milliseconds{now})))
            << call;
    }
    limiter.ReleaseIfIdle(window, At(milliseconds{now + 1000}));
    EXPECT_NE(limiter.Size(), 0U);
    limiter.ReleaseIfIdle(window, At(milliseconds{now + 1001}));
    EXPECT_EQ(limiter.Size(), 0U);
}

}  // namespace
}  // namespace Engine
