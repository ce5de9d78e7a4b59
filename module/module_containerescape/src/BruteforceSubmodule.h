// SPDX-License-Identifier: Apache-2.0
// A process that guesses file handles: more calls of open_by_handle_at(2) in a sliding window than are allowed. Every
// call over the limit raises the alarm; the task's filter merges them.
// Thread: the detection task's thread; no lock inside.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "BaseSubmodule.h"
#include "RateLimiter.h"

namespace Engine {

class BruteforceSubmodule : public BaseSubmodule {
public:
    // `window`: in seconds. `maxCount`: calls that one process may make within it.
    BruteforceSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo,
                        const std::chrono::duration<long>& window, unsigned short maxCount);

    int Init() override;
    // Forgets all processes.
    void DeInit() override;
    ~BruteforceSubmodule() override;
    // Keeps the process's counter, so that a process that takes over the id within the window counts on.
    void HandleProcExit(int pid) override;
    // False for a call over the limit. An event that raises no alarm asks the system nothing: the executable's path and
    // the parent, which only the alarm carries, are looked up when it is raised.
    bool HandleEvent(const FtraceMessage& message) override;

    // Counts one call of `pid` and raises the alarm when that is too many. Whether it is within the limit.
    bool HandleOpenAt(int ppid, const std::chrono::steady_clock::time_point& now, const std::string& exePath, int pid);

    void setBruteForceAlertInfo(AlertInfo& info);

private:
    bool CountCall(int pid, std::chrono::steady_clock::time_point now);
    void RaiseAlarm(int ppid, int pid, const std::string& exePath);
    void DropIdle(std::chrono::steady_clock::time_point now);

    std::chrono::duration<long> window;
    std::uint16_t maxCount;
    std::unordered_map<int, RateLimiter> limiters;  // by process id; dropped when idle, and by DeInit
    std::size_t callsUntilRound;
};

}  // namespace Engine
