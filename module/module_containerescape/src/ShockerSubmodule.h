// SPDX-License-Identifier: Apache-2.0
// The "Shocker" technique: a process lists a directory and then opens a file by its handle, which reaches files of the
// host from inside a container (open_by_handle_at(2)).
//
// In the scope of threads both must be the same thread's, its first call only makes it known, and there is one alarm
// for each thread at most. In the scope of containers any listing counts, with any opening in the container after it,
// and the container has one alarm an hour.
// Thread: the detection task's thread; no lock inside.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "AlarmGates.h"
#include "BaseSubmodule.h"

namespace Engine {

class ShockerSubmodule : public BaseSubmodule {
public:
    enum class State : std::uint8_t {
        New = 0,       // not seen by this detector yet
        Seen = 1,      // made some traced call, whichever
        Listed = 2,    // listed a directory after that
        Reported = 3,  // the alarm is out; final while the thread lives; not in the scope of containers
    };

    ShockerSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo);

    int Init() override;
    // Forgets all processes and containers.
    void DeInit() override;
    void Reconfigure(const ContainerEscapeDetectPolicyContent& content) override;
    ~ShockerSubmodule() override;
    // Forgets the process: its id may be used again. A container stays as it is.
    void HandleProcExit(int pid) override;
    void Forget(ScopeKey owner) override;
    // Always true.
    bool HandleEvent(const FtraceMessage& message) override;

    // Raises the alarm, unless the container had one within the hour. The state after it.
    State ProcEventGetDents(const FtraceMessage& message, int pid);

    void setShockerAlertInfo(AlertInfo& info);

    // The container that the process is in, by the metadata service; empty when it does not know.
    std::string GetContainerId(int pid);

    // Whether `path` lies below one of the container's mounts. True for a container that the metadata service does not
    // know: it cannot be ruled out.
    bool IsMounted(const std::string& containerId, const std::string& path);

private:
    bool RaiseAlarm(const FtraceMessage& message, int pid);

    Scope scope = Scope::Thread;
    std::unordered_map<ScopeKey, State> states;  // HandleProcExit and Forget remove
    AlarmGates gates{Scope::Thread};
};

}  // namespace Engine
