// SPDX-License-Identifier: Apache-2.0
// Registering for trace events on behalf of a task, many at once. Thread: the task's own thread. Logged to the root
// logger.
#pragma once

#include <list>
#include <string>
#include <utility>

#include "WatchHandles.h"

namespace Engine::FtraceUtils {

// Appends a handle for the event and returns whether it is valid. A handle that failed stays in the list, so that the
// list has one entry for each event that was asked for.
bool RegisterFtraceEvent(Framework::Task* task, std::list<FtraceWatchHandle>& handles, const std::string& system,
                         const std::string& event);

// Registers for all of the (system, event) pairs in their order. One that fails is logged, and the next one follows.
void RegisterFtraceEvents(Framework::Task* task, std::list<FtraceWatchHandle>& handles,
                          const std::list<std::pair<std::string, std::string>>& events);

// A device number as the kernel's trace events carry it (major in bits 20-31, minor in bits 0-19: MKDEV() of
// include/linux/kdev_t.h) in the classic form of 16 bits, major * 256 + minor, for comparison with user space. Only the
// low eight bits of each survive.
unsigned int NormaliseDevice(unsigned int dev);

}  // namespace Engine::FtraceUtils
