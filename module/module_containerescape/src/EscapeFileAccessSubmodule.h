// SPDX-License-Identifier: Apache-2.0
// One alarm for every notification of an access to a guarded host path by a container's process. Which accesses are
// notified is settled by the watches and by the detection task; only the task's filter merges repeats.
// Thread: the detection task's thread; no lock inside.
#pragma once

#include <string>
#include <unordered_set>

#include "BaseSubmodule.h"

namespace Engine {

class EscapeFileAccessSubmodule : public BaseSubmodule {
public:
    EscapeFileAccessSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo);

    // Watches the entries of the last Reconfigure, each handed over whole, permission letters included. 0.
    int Init() override;
    void DeInit() override;
    ~EscapeFileAccessSubmodule() override;
    // Raises the alarm. -1 in every case.
    int HandleFileNotifyMsg(FileNotifyMessage* message) override;
    void Reconfigure(const ContainerEscapeDetectPolicyContent& content) override;
    // Not for this detector: true.
    bool HandleEvent(const FtraceMessage& message) override;

    void SendAlarm(int pid, int ppid, const std::string& processName, const std::string& path);

    void setEscapeAccessFileAlertInfo(AlertInfo& info);

private:
    std::unordered_set<std::string> hostDirectories;
};

}  // namespace Engine
