// SPDX-License-Identifier: Apache-2.0
// How long it took from what an alarm is about to the alarm's line, as a histogram among the counters.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace SDK::AlarmLatency {

// Upper bounds of the buckets, in microseconds; one more bucket has what is beyond.
inline constexpr std::array<std::uint32_t, 16> bounds{100,       250,       500,       1'000,     2'500,   5'000,
                                                      10'000,    25'000,    50'000,    100'000,   250'000, 500'000,
                                                      1'000'000, 2'500'000, 5'000'000, 10'000'000};

// The counter of a bucket's alarms, those of the buckets before it not included: "alarms.latency_us_100" and so on,
// "alarms.latency_us_more" for the index bounds.size(). The sum of all is in microseconds.
std::string CounterOf(std::size_t bucket);
inline constexpr char counterPrefix[] = "alarms.latency_us_";
inline constexpr char sumCounter[] = "alarms.latency_us_sum";

// Any thread.
void Count(std::chrono::nanoseconds latency);

}  // namespace SDK::AlarmLatency
