// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include "host/sdk/SystemView.h"
#include "messages/ProcsMessage.h"

namespace Engine {

namespace {

constexpr unsigned int queueCapacity = 1024;
constexpr int pauseMs = 1000;
constexpr int maxHandlers = 16;

// Null when the process has gone.
std::shared_ptr<ProcsMessage::procInfo> Describe(SDK::SystemView& system, int pid)
{
    SDK::ProcessUtils::procStatus status;
    auto info = std::make_shared<ProcsMessage::procInfo>();
    if (system.Status(pid, status) != 0 || system.ContainerOf(pid, info->containerId) != 0) {
        return nullptr;
    }
    info->pid = pid;
    info->ppid = status.ppid;
    info->name = std::move(status.name);
    system.ExecutablePath(static_cast<unsigned int>(pid), info->path);
    system.CommandLine(pid, info->cmdline);
    return info;
}

}  // namespace

ProcsFullTask::ProcsFullTask()
    : Framework::Task("procs_full_task", "", Framework::TaskCondition::EventLoop, queueCapacity)
{
}

void ProcsFullTask::GetProcsMap(std::map<int, std::shared_ptr<ProcsMessage::procInfo>>& procs)
{
    procs.clear();
    SDK::SystemView& system = SDK::SystemView::Current();
    for (const int pid : system.Processes()) {
        if (auto info = Describe(system, pid)) {
            procs.emplace_hint(procs.end(), pid, std::move(info));
        }
    }
}

// The table is made when it is asked for; the thread only keeps the queue empty.
int ProcsFullTask::Run()
{
    Waiter().WaitAndHandleEvent(pauseMs, maxHandlers);
    BulkConsumeMsg(static_cast<int>(queueCapacity));
    return 0;
}

}  // namespace Engine
