// SPDX-License-Identifier: Apache-2.0
#include "RateLimiter.h"

#include <algorithm>

namespace Engine {
namespace {

// Spare room that is not worth giving back, in time points: 8 KiB.
constexpr std::size_t keptCapacity = 1024;

}  // namespace

bool RateLimiter::Update(const std::chrono::duration<long>& window, unsigned short maxCount, TimePoint now)
{
    Insert(now);
    const TimePoint latest = times.back();
    while (Size() > 1 && latest - times[head] > window) {
        ++head;
    }
    if (head > Size()) {
        Compact();
    }
    return Size() <= maxCount;
}

void RateLimiter::Insert(TimePoint now)
{
    const auto first = times.begin() + static_cast<std::ptrdiff_t>(head);
    if (first == times.end() || times.back() <= now) {
        times.push_back(now);
    } else {
        times.insert(std::upper_bound(first, times.end(), now), now);
    }
}

// Moves what is left to the front: fewer times than have left since the last move, which pay for it.
void RateLimiter::Compact()
{
    times.erase(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(head));
    head = 0;
    if (times.capacity() > keptCapacity && times.capacity() / 8 > times.size()) {
        times.shrink_to_fit();
    }
}

}  // namespace Engine
