// SPDX-License-Identifier: Apache-2.0
// The "Shocker" technique: a process lists a directory and then opens a file by its handle, which reaches files of the
// host from inside a container (open_by_handle_at(2)). One alarm for each process id at most.
// Thread: the detection task's thread; no lock inside.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "BaseSubmodule.h"

namespace Engine {

class ShockerSubmodule : public BaseSubmodule {
public:
    enum class State : std::uint8_t {
        New = 0,       // not seen by this detector yet
        Seen = 1,      // made some traced call, whichever
        Listed = 2,    // listed a directory after that
        Reported = 3,  // the alarm is out; final while the process lives
    };

    ShockerSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo);

    int Init() override;
    // Forgets all processes.
    void DeInit() override;
    ~ShockerSubmodule() override;
    // Forgets the process: its id may be used again.
    void HandleProcExit(int pid) override;
    // Always true.
    bool HandleEvent(const FtraceMessage& message) override;

    // Raises the alarm; Reported.
    State ProcEventGetDents(const FtraceMessage& message, int pid);

    void setShockerAlertInfo(AlertInfo& info);

    // The container that the process is in, by the metadata service; empty when it does not know.
    std::string GetContainerId(int pid);

    // Whether `path` lies below one of the container's mounts. True for a container that the metadata service does not
    // know: it cannot be ruled out.
    bool IsMounted(const std::string& containerId, const std::string& path);

private:
    std::unordered_map<int, State> states;  // by process id; HandleProcExit removes
};

}  // namespace Engine
