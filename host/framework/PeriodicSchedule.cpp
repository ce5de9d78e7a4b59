// SPDX-License-Identifier: Apache-2.0
#include "host/framework/PeriodicSchedule.h"

#include <algorithm>

namespace Framework {

using std::chrono::milliseconds;
using std::chrono::seconds;

PeriodicSchedule::PeriodicSchedule(seconds firstDelay, seconds period, Clock::time_point start)
    : period(period), next(start + std::max(firstDelay, seconds{0}))
{
}

std::optional<milliseconds> PeriodicSchedule::Remaining(Clock::time_point now) const
{
    if (period <= seconds{0}) {
        return std::nullopt;
    }
    // Rounded up: a wait that ends a fraction of a millisecond early would spin until the instant has come.
    return std::max(std::chrono::ceil<milliseconds>(next - now), milliseconds{0});
}

void PeriodicSchedule::MarkRun(Clock::time_point now)
{
    if (period <= seconds{0} || now < next) {
        return;
    }
    next += period * ((now - next) / period + 1);
}

}  // namespace Framework
