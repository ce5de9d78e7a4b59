// SPDX-License-Identifier: Apache-2.0
// A host that limits the CPU time of its threads does so here: a thread reports what it used, and is put to sleep when
// that was more than its share. This agent sets no such limit.
#pragma once

#include <cstdint>

namespace SDK {

class InnerCpuCtrlUtils {
public:
    // Whether threads are limited at all. Any thread.
    static bool IsEnabled();

    // CPU time in nanoseconds (the unit of TimeUtils::GetCurrentSystemTickUsed) that a thread may use between two calls
    // of AdjustThreadCpu.
    static std::uint64_t GetSuggestedRunTick();

    // Called by a thread that used `elapsed` ticks since its last call; may sleep. `file`, `line` and `label` name the
    // place of the call.
    static void AdjustThreadCpu(const char* file, int line, const char* label, unsigned long now,
                                unsigned long elapsed);
};

}  // namespace SDK
