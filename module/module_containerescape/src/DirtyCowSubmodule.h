// SPDX-License-Identifier: Apache-2.0
// The calls of a "Dirty COW" style exploit that ends in an escape: bind, madvise, ptrace and accept by one process, in
// this order with anything in between.
//
// It subscribes to no system call of its own and follows those that other detectors subscribed to, since every detector
// sees every event: in practice the four calls must be in the policy's list.
//
// Each thread is followed by itself in either scope, so an exploit that spreads the calls over its threads is not
// found. An event does not tell the thread group, and such exploits use several processes anyway; taken over a whole
// container the calls are ordinary ones, a server's and a debugger's. The module has this detector's alarm suppressed.
// Thread: the detection task's thread; no lock inside.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "BaseSubmodule.h"

namespace Engine {

class DirtyCowSubmodule : public BaseSubmodule {
public:
    enum class State : std::uint8_t {
        Initial = 0,
        Bound = 1,     // bind seen
        Advised = 2,   // madvise after that
        Traced = 3,    // ptrace after that
        Accepted = 4,  // accept after that: complete, final while the process lives
    };

    // `suppressAlarm`: follow the calls, but raise no alarm.
    DirtyCowSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo, bool suppressAlarm);

    int Init() override;
    // Forgets all processes.
    void DeInit() override;
    ~DirtyCowSubmodule() override;
    // Not for this detector: 0.
    int HandleFileNotifyMsg(FileNotifyMessage* message) override;
    // Forgets the process: its id may be used again.
    void HandleProcExit(int pid) override;
    // False once the process has made all four calls. An event that raises no alarm asks the system nothing: the
    // executable's path and the parent, which only the alarm carries, are looked up when it is raised.
    bool HandleEvent(const FtraceMessage& message) override;

    void setDirtyCowAlertInfo(AlertInfo& info);

private:
    void RaiseAlarm(const FtraceMessage& message, int pid);

    bool suppressAlarm;
    std::unordered_map<int, State> states;  // by process id; HandleProcExit removes
};

}  // namespace Engine
