// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/CpuShare.h"

namespace SDK::CpuShare {

namespace {

bool IsLimit(unsigned int percent)
{
    return percent > 0 && percent < 100;
}

}  // namespace

std::chrono::nanoseconds PauseFor(std::chrono::nanoseconds elapsed, unsigned int percent)
{
    if (!IsLimit(percent) || elapsed.count() <= 0) {
        return std::chrono::nanoseconds{0};
    }
    const auto used = static_cast<std::int64_t>(percent);
    const std::int64_t rest = 100 - used;
    const std::chrono::nanoseconds longest = longestPause;
    if (elapsed >= longest * used / rest) {  // also keeps the product below within range
        return longest;
    }
    return elapsed * rest / used;
}

std::chrono::nanoseconds RunTime(unsigned int percent)
{
    if (!IsLimit(percent)) {
        return std::chrono::nanoseconds::max();
    }
    return std::chrono::nanoseconds{turn} * static_cast<std::int64_t>(percent) / 100;
}

}  // namespace SDK::CpuShare
