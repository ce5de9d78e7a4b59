// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/AlarmLatency.h"

#include <algorithm>

#include "host/sdk/Counters.h"

namespace SDK::AlarmLatency {

std::string CounterOf(std::size_t bucket)
{
    return counterPrefix + (bucket < bounds.size() ? std::to_string(bounds.at(bucket)) : std::string{"more"});
}

void Count(std::chrono::nanoseconds latency)
{
    const auto passed = std::chrono::duration_cast<std::chrono::microseconds>(latency).count();
    const auto microseconds = static_cast<std::uint64_t>(std::max<std::int64_t>(passed, 0));
    const auto* const bound = std::lower_bound(bounds.begin(), bounds.end(), microseconds);
    ++Counters::Get(CounterOf(static_cast<std::size_t>(bound - bounds.begin())));
    Counters::Get(sumCounter) += microseconds;
}

}  // namespace SDK::AlarmLatency
