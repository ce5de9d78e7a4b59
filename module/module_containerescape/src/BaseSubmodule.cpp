// SPDX-License-Identifier: Apache-2.0
#include "BaseSubmodule.h"

#include "ContainerEscapeDetectTask.h"
#include "FtraceUtils.h"
#include "ModuleLog.h"
#include "messages/FileNotifyMessages.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

[[gnu::noinline]] void LogReceived(const FtraceMessage& message)
{
    ModuleLog::Debug(At{"BaseSubmodule", 127}, "[BaseMod] Receive ftrace msg: [%s]:%s", message.name(),
                     std::to_string(message.get_number("comm_pid")));
}

}  // namespace

BaseSubmodule::BaseSubmodule(ContainerEscapeDetectTask& task, std::string name, ContainerMetaInfo* metaInfo)
    : task(task),
      syscallSystem("syscalls"),
      schedSystem("sched"),
      fileEvents{0x2, 0x8},
      name(std::move(name)),
      metaInfo(metaInfo)
{
}

BaseSubmodule::~BaseSubmodule() = default;

void BaseSubmodule::Init(std::unordered_set<std::string> newSyscalls, std::unordered_set<std::string> newFiles)
{
    syscalls.swap(newSyscalls);
    files.swap(newFiles);
    RegisterFileMonitor(false);
    RegisterSyscallMonitor(false);
}

void BaseSubmodule::DeInit()
{
    RegisterFileMonitor(true);
    RegisterSyscallMonitor(true);
}

int BaseSubmodule::RunOnce()
{
    return 0;
}

int BaseSubmodule::HandleFileNotifyMsg(FileNotifyMessage* /*message*/)
{
    return 0;
}

void BaseSubmodule::Reconfigure(const ContainerEscapeDetectPolicyContent& /*content*/)
{
}

void BaseSubmodule::HandleProcFork(int /*pid*/)
{
}

void BaseSubmodule::HandleProcExit(int /*pid*/)
{
}

void BaseSubmodule::Forget(ScopeKey /*container*/)
{
}

int BaseSubmodule::Receive(const FtraceMessage& message)
{
    if (ModuleLog::Admits(Poco::Message::PRIO_DEBUG)) {
        LogReceived(message);
    }
    HandleEvent(message);
    return 0;
}

int BaseSubmodule::Receive(const ContainerProcMessage& message)
{
    if (!message.info) {
        return 0;  // a notice about no process
    }
    const int pid = message.info->pid;
    ModuleLog::Trace(At{"BaseSubmodule", 204}, "received new process state: pid=%d, started=%b", pid, message.started);
    if (message.started) {
        HandleProcFork(pid);
    } else {
        HandleProcExit(pid);
    }
    return 0;
}

void BaseSubmodule::RegisterFileMonitor(bool remove)
{
    for (const std::string& path : files) {
        if (remove) {
            task.SendDirectMsg("filenotify_task", new FileNotifyWatchMessage(&task, path, false));
            continue;
        }
        _FileNotifyOpt options;
        options.notifyOnly = true;
        options.changes = task.GetScope() == Scope::Container;
        task.SendDirectMsg("filenotify_task", new FileNotifyWatchMessage(&task, path, fileEvents, options));
    }
}

void BaseSubmodule::RegisterSyscallMonitor(bool remove)
{
    if (syscalls.empty()) {
        return;
    }
    if (remove) {
        watchHandles.clear();
        return;
    }
    std::list<std::pair<std::string, std::string>> events;
    MakeEvents(events);
    FtraceUtils::RegisterFtraceEvents(&task, watchHandles, events);
}

void BaseSubmodule::MakeEvents(std::list<std::pair<std::string, std::string>>& events) const
{
    for (const std::string& syscall : syscalls) {
        events.emplace_back(syscallSystem, "sys_enter_" + syscall);
    }
}

std::string BaseSubmodule::ParseFtraceSyscallName(const std::string& eventName)
{
    return std::string{FtraceSyscallNameView(eventName)};
}

void BaseSubmodule::GetProcessDetailByPid(int pid, AlertInfo& info)
{
    SDK::ProcessUtils::procStatus status;
    if (SDK::ProcessUtils::GetProcessStatusInfo(pid, status) == -1) {
        task.GetPPIDByRecordMap(pid, info.ppid);
        task.GetExeNameByRecordMap(pid, info.processName);
        return;
    }
    info.ppid = status.ppid;
    info.processName = status.name;
}

Json::Value BaseSubmodule::MakeForensicInfo(const std::string& syscall) const
{
    Json::Value forensic;
    forensic["sys_call"] = syscall;
    return forensic;
}

Json::Value BaseSubmodule::MakeFileInfo(const std::string& path) const
{
    Json::Value file;
    file["file_path"] = path;
    return file;
}

}  // namespace Engine
