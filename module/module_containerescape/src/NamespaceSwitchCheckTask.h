// SPDX-License-Identifier: Apache-2.0
// Compares the namespaces of every container process with those of its container, over and over, and raises an alarm
// for each process that has left one. Works alone: it shares nothing with the detection task, and nothing merges its
// alarms, so a process that stays out is reported at every round.
//
// The module does not create this task; another module may register one (module_namespace_check does).
// Thread: its own task thread. Keeps nothing from one round to the next.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "framework/Task.h"
#include "messages/ContainerMessages.h"
#include "messages/ProcsMessage.h"

namespace Engine {

// Whether each namespace of the process is the container's, by kind, compared as texts (SDK::NamespaceUtils). Kinds
// that only the container has do not count. False: `nsName` is the first kind, in byte order, that is missing or
// differs; it is untouched otherwise.
bool CheckNameSpaceInfo(const std::map<std::string, std::string>& processNs,
                        const std::map<std::string, std::string>& containerNs, std::string& nsName);

// The task "container_escape_nss_task", periodic.
class NamespaceSwitchTask : public Framework::Task {
public:
    // `featureName`: the feature whose policy sets the task's period.
    explicit NamespaceSwitchTask(const std::string& featureName);
    ~NamespaceSwitchTask() override;

    // 0 in any case.
    int Init() override;
    int UnInit() override;
    // One round. 0.
    int Run() override;

    // One round over the host's processes. Does nothing where no process list or no container service is registered;
    // skips what cannot be asked (an unknown container, a process that has gone).
    virtual void BatchCheckProcess();

private:
    void CheckProcess(const std::shared_ptr<ProcsMessage::procInfo>& process);
    // `nsName`: the kind that differs; only the log shows it.
    void Alert(const std::shared_ptr<ProcsMessage::procInfo>& process, const std::shared_ptr<ContainerInfo>& container,
               const std::string& nsName);
};

}  // namespace Engine
