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

// When a call comes, in milliseconds: in bursts, late, sometimes very late, at random, backwards.
long When(int order, std::mt19937_64& random, long call)
{
    switch (order) {
        case 0:
            return call / 400 * 1500 + call % 7;
        case 1:
            return 3 * call - static_cast<long>(random() % 40);
        case 2:
            return random() % 50 == 0 ? 0 : 3 * call;
        case 3:
            return static_cast<long>(random() % 5000);
        default:
            return 4000 - call;
    }
}

// Whatever the order, every single result must be that of the plain rule.
TEST(RateLimiterTest, CountsLikeAFullPassWhateverTheOrder)
{
    for (int order = 0; order < 5; ++order) {
        std::mt19937_64 random{1};
        RateLimiter limiter;
        FullPass plain;
        for (long call = 0; call < 4000; ++call) {
            const TimePoint now = At(milliseconds{When(order, random, call)});
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
