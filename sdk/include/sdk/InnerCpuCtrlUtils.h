// SPDX-License-Identifier: Apache-2.0
// Keeps a thread within its share of a CPU: the thread reports what it used, the limiter makes it sleep off the excess.
#pragma once

#include <cstdint>

namespace SDK {

class InnerCpuCtrlUtils {
public:
    // False until a share is set. Any thread; one relaxed load.
    static bool IsEnabled();

    // CPU time in nanoseconds (the unit of TimeUtils::GetCurrentSystemTickUsed) that a thread may use between two calls
    // of AdjustThreadCpu.
    static std::uint64_t GetSuggestedRunTick();

    // Called by a thread that used `elapsed` ticks since its last call: sleeps long enough that elapsed / (elapsed +
    // sleep) is the share, at most 100 ms a call. `file`, `line` and `label` name the call site in the log (trace
    // level).
    static void AdjustThreadCpu(const char* file, int line, const char* label, unsigned long now,
                                unsigned long elapsed);

    // Host: the share of one CPU that a throttled thread may use, 1 to 99 percent; 0 or 100 and more switch limiting
    // off.
    static void SetShare(unsigned int percent);
};

}  // namespace SDK
