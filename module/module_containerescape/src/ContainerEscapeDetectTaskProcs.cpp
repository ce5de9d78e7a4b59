// SPDX-License-Identifier: Apache-2.0
// The detection task's table of the processes that run in containers.
#include <utility>

#include "ContainerEscapeDetectTask.h"
#include "ModuleLog.h"
#include "sdk/FileUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

// A record that was seen to exit stays this long for events that come after the exit.
constexpr std::int64_t exitGraceSeconds = 2;

}  // namespace

int ContainerEscapeDetectTask::CreateProcess(const std::string& /*syscall*/, const FtraceMessage& message, int& ppid)
{
    const int cpid = static_cast<int>(message.get_number("child_pid"));
    const std::string& pname = message.get_string("parent_comm");
    ppid = static_cast<int>(message.get_number("parent_pid"));

    std::string containerId;
    if (SDK::ProcessUtils::GetContainerID(ppid, containerId) == -1 || containerId.empty()) {
        return -1;
    }
    ModuleLog::Debug("Create Process: ppid = %d, pname = %s, cpid = %d, cid = %s", ppid, pname, cpid, containerId);
    PruneIfFull();

    const auto [parent, isNew] = procs.try_emplace(ppid);
    if (isNew) {
        parent->second.pid = ppid;  // its name stays empty until a later fork tells it
    } else {
        parent->second.name = pname;
    }
    parent->second.containerId = containerId;
    // In place, every member: a record made first and then moved costs a tenth of a fork.
    escapeProcRecord& child = procs[cpid];
    child.ppid = ppid;
    child.pid = cpid;
    child.name = pname;
    child.exeName.clear();
    child.containerId = std::move(containerId);
    child.exitTime = 0;
    ForgetInDetectors(cpid);  // the exit of the id's last bearer may have been lost
    return 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the operation's signature is settled; callers pass ""
int ContainerEscapeDetectTask::AddProcessInfo(std::string /*syscall*/, const FtraceMessage& message, int& pid)
{
    pid = static_cast<int>(message.get_number("pid"));
    const auto found = procs.find(pid);
    if (found == procs.end()) {
        return -1;
    }
    const std::string& filename = message.get_string("filename");
    ModuleLog::Debug("Add Process Info: pid = %d, name = %s", pid, filename);
    found->second.exeName = filename;
    return 0;
}

int ContainerEscapeDetectTask::RemoveProcess(const std::string& /*syscall*/, const FtraceMessage& message)
{
    const int pid = static_cast<int>(message.get_number("pid"));
    const auto found = procs.find(pid);
    if (found == procs.end()) {
        return -1;
    }
    ModuleLog::Debug("Rmv Process Info: pid = %d", pid);
    // Only marked: detectors may still look it up. ClearProcs takes it away.
    found->second.exitTime = SDK::TimeUtils::GetCurrentTimestampS();
    return 0;
}

void ContainerEscapeDetectTask::CreateProcessByContainerMsg(const ContainerProcMessage& message)
{
    if (!message.info || IsKnown(message.info->pid)) {
        return;
    }
    const ContainerProcMessage::ProcInfo& info = *message.info;
    PruneIfFull();
    procs.insert_or_assign(info.pid,
                           escapeProcRecord{info.ppid, info.pid, info.name, info.executable, info.containerId, 0});
}

void ContainerEscapeDetectTask::RemoveProcessByContainerMsg(const ContainerProcMessage& message)
{
    if (message.info) {
        procs.erase(message.info->pid);
    }
}

void ContainerEscapeDetectTask::PruneIfFull()
{
    if (procs.size() > maxProcs) {
        ClearProcs();
    }
}

void ContainerEscapeDetectTask::ClearProcs()
{
    ModuleLog::Information(" exceed max monitor proc (%z), clear proc by alive time.", procs.size());
    for (auto entry = procs.begin(); entry != procs.end();) {
        const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
        const std::int64_t exitTime = entry->second.exitTime;
        const std::int64_t distance = now > exitTime ? now - exitTime : exitTime - now;
        // The living go too (their exit time is 0): they come back with their next fork or notice.
        entry = distance > exitGraceSeconds ? procs.erase(entry) : std::next(entry);
    }
}

int ContainerEscapeDetectTask::GetPPIDByRecordMap(const int& pid, int& ppid)
{
    const auto found = procs.find(pid);
    if (found == procs.end()) {
        return -1;
    }
    ppid = found->second.ppid;
    return 0;
}

void ContainerEscapeDetectTask::GetExeNameByRecordMap(const int& pid, std::string& exeName)
{
    if (const auto found = procs.find(pid); found != procs.end()) {
        exeName = found->second.exeName;
    }
}

int ContainerEscapeDetectTask::GetContainerIDByRecordMap(const int& pid, std::string& containerId)
{
    const auto found = procs.find(pid);
    if (found == procs.end()) {
        return -1;
    }
    containerId = found->second.containerId;
    return 0;
}

ScopeKey ContainerEscapeDetectTask::KeyOf(int pid, ScopeKey otherwise)
{
    ScopeKey key = dispatchedKey;
    if (pid != dispatchedPid) {
        const auto found = procs.find(pid);
        key = found == procs.end() ? hostKey : KeyOf(found->second);
    }
    return key == hostKey ? otherwise : key;
}

ScopeKey ContainerEscapeDetectTask::KeyOf(const escapeProcRecord& process)
{
    const bool hasOwn = GetScope() == Scope::Container && !process.containerId.empty();
    return hasOwn ? containerKeys.Of(process.containerId) : hostKey;
}

int ContainerEscapeDetectTask::IsContainerProc(unsigned long pid, std::string& containerId)
{
    constexpr long maxCgroupBytes = 10L * 1024 * 1024;
    constexpr char banner[] = "=============================pid = %lu============================";
    std::string content;
    SDK::FileUtils::ReadFile("/proc/" + std::to_string(pid) + "/cgroup", content, maxCgroupBytes);
    ModuleLog::Error(banner, pid);
    const SDK::LogText text{"\n %s"};
    SDK::LogTo(DockerUtil::GetLoggerPtr(), Poco::Message::PRIO_ERROR, text.at, text.text, content);
    ModuleLog::Error(banner, pid);
    return SDK::ProcessUtils::GetContainerID(static_cast<int>(pid), containerId);
}

}  // namespace Engine
