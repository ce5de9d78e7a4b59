// SPDX-License-Identifier: Apache-2.0
// The arithmetic of keeping a thread within its share of a CPU.
#pragma once

#include <chrono>
#include <cstdint>

namespace SDK::CpuShare {

// One turn of work and rest at full load. Short, because whatever waits for the thread waits for its rest as well.
inline constexpr std::chrono::milliseconds turn{20};
inline constexpr std::chrono::milliseconds longestPause{100};

// How long a thread that used `elapsed` of CPU time rests, so that elapsed / (elapsed + pause) is `percent`; at most
// longestPause. No pause for a `percent` of 0 or of 100 and more: no limit is set.
std::chrono::nanoseconds PauseFor(std::chrono::nanoseconds elapsed, unsigned int percent);

// The part of a turn that is work. The longest time there is when no limit is set.
std::chrono::nanoseconds RunTime(unsigned int percent);

}  // namespace SDK::CpuShare
