// SPDX-License-Identifier: Apache-2.0
// One alarm whenever a container's process enters a system call that the policy lists. In the scope of threads at most
// once an hour for each name, by whatever process; in that of containers once an hour for each name and container.
// Thread: the detection task's thread; no lock inside.
#pragma once

#include <map>
#include <string>
#include <unordered_set>

#include "AlarmGates.h"
#include "BaseSubmodule.h"

namespace Engine {

class HighRiskSyscallSubmodule : public BaseSubmodule {
public:
    // `numbers`: x86-64 numbers to start with; the first Reconfigure replaces them.
    HighRiskSyscallSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo,
                             std::unordered_set<int> numbers);

    // Subscribes to the names of the last Reconfigure. 0.
    int Init() override;
    ~HighRiskSyscallSubmodule() override;
    // Not for this detector: 0.
    int HandleFileNotifyMsg(FileNotifyMessage* message) override;
    // Takes the policy's names that have an x86-64 number. The others ("waitpid") have no trace event here.
    void Reconfigure(const ContainerEscapeDetectPolicyContent& content) override;
    // False for a system call that is not listed.
    bool HandleEvent(const FtraceMessage& message) override;

    void Forget(ScopeKey container) override;

    // Whether the owner's last alarm for `name` is less than an hour old, by the wall clock in either direction. When
    // it is not, this counts as the next alarm.
    bool IsNeedToAggregateAlarm(const std::string& name, ScopeKey owner = hostKey);

    void setHighRiskSyscallAlertInfo(AlertInfo& info);

private:
    ScopeKey OwnerOf(const FtraceMessage& message) const;

    std::unordered_set<int> highRiskNumbers;
    std::unordered_set<std::string> highRiskNames;
    std::map<std::string, AlarmGates> gates;  // by call; no more entries than there are system calls
    std::string callName;                     // of the event being handled; kept for its memory
};

}  // namespace Engine
