// SPDX-License-Identifier: Apache-2.0
// A process that guesses file handles: more calls of open_by_handle_at(2) in a sliding window than are allowed. In the
// scope of threads each thread is counted by itself, and every call over the limit raises the alarm; the task's filter
// merges them. In the scope of containers the calls of all of a container's threads are counted together, so that it
// does not help to spread them, and the container has one alarm an hour.
// Thread: the detection task's thread; no lock inside.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "AlarmGates.h"
#include "BaseSubmodule.h"
#include "RateLimiter.h"

namespace Engine {

class BruteforceSubmodule : public BaseSubmodule {
public:
    // `window`: in seconds. `maxCount`: calls that one thread, or one container, may make within it.
    BruteforceSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo,
                        const std::chrono::duration<long>& window, unsigned short maxCount);

    int Init() override;
    // Forgets all processes and containers.
    void DeInit() override;
    void Reconfigure(const ContainerEscapeDetectPolicyContent& content) override;
    ~BruteforceSubmodule() override;
    // Keeps the process's counter, so that a process that takes over the id within the window counts on.
    void HandleProcExit(int pid) override;
    void Forget(ScopeKey container) override;
    // False for a call over the limit. An event that raises no alarm asks the system nothing: the executable's path and
    // the parent, which only the alarm carries, are looked up when it is raised.
    bool HandleEvent(const FtraceMessage& message) override;

    // Counts one call of `pid` and raises the alarm when that is too many. Whether it is within the limit.
    bool HandleOpenAt(int ppid, const std::chrono::steady_clock::time_point& now, const std::string& exePath, int pid);

    void setBruteForceAlertInfo(AlertInfo& info);

private:
    // `exePath` null: looked up when there is an alarm.
    bool JudgeCall(int ppid, int pid, std::chrono::steady_clock::time_point now, const std::string* exePath);
    bool RaiseAlarm(int ppid, int pid, const std::string* exePath);
    void DropIdle(std::chrono::steady_clock::time_point now);

    std::chrono::duration<long> window;
    std::uint16_t maxCount;
    std::unordered_map<ScopeKey, RateLimiter> limiters;  // dropped when idle, and by DeInit
    AlarmGates gates{Scope::Thread};
    std::size_t callsUntilRound;
};

}  // namespace Engine
