// SPDX-License-Identifier: Apache-2.0
#include "sdk/TimeUtils.h"

#include <ctime>

#include "host/sdk/SystemView.h"

namespace SDK {

std::int64_t TimeUtils::GetCurrentTimestampS()
{
    return SystemView::Current().WallClockSeconds();
}

std::uint64_t TimeUtils::GetCurrentSystemTickUsed()
{
    constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);  // cannot fail: the clock exists since Linux 2.6.12
    return static_cast<std::uint64_t>(used.tv_sec) * nanosecondsPerSecond + static_cast<std::uint64_t>(used.tv_nsec);
}

}  // namespace SDK
