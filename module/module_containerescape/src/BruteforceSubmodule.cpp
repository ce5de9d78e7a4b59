// SPDX-License-Identifier: Apache-2.0
#include "BruteforceSubmodule.h"

#include <algorithm>

#include "ContainerEscapeDetectTask.h"
#include "sdk/ProcessUtils.h"

namespace Engine {
namespace {

constexpr AlarmClass alarmClass{"containerescape_0005", "Bruteforce syscall attack", 4, 4, 3, 2000, 2042, 60};

constexpr char openByHandle[] = "open_by_handle_at";

// At least so many calls lie between two rounds over all counters.
constexpr std::size_t minCallsBetweenRounds = 4096;

}  // namespace

BruteforceSubmodule::BruteforceSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo,
                                         const std::chrono::duration<long>& window, unsigned short maxCount)
    : BaseSubmodule(task, "bruteforce_submodule", metaInfo),
      window(window),
      maxCount(maxCount),
      callsUntilRound(minCallsBetweenRounds)
{
}

BruteforceSubmodule::~BruteforceSubmodule() = default;

int BruteforceSubmodule::Init()
{
    BaseSubmodule::Init({openByHandle}, {});
    return 0;
}

void BruteforceSubmodule::DeInit()
{
    limiters.clear();
    gates.Clear();
    BaseSubmodule::DeInit();
}

void BruteforceSubmodule::Reconfigure(const ContainerEscapeDetectPolicyContent& content)
{
    BaseSubmodule::Reconfigure(content);
    gates = AlarmGates(content.scope);
}

void BruteforceSubmodule::HandleProcExit(int pid)
{
    gates.Forget(pid);
    BaseSubmodule::HandleProcExit(pid);
}

void BruteforceSubmodule::Forget(ScopeKey container)
{
    limiters.erase(container);
    gates.Forget(container);
}

bool BruteforceSubmodule::HandleEvent(const FtraceMessage& message)
{
    if (FtraceSyscallNameView(message.name()) != openByHandle) {
        return true;
    }
    const auto now = std::chrono::steady_clock::now();
    DropIdle(now);
    return JudgeCall(static_cast<int>(message.get_number("parent_pid")),
                     static_cast<int>(message.get_number("common_pid")), now, nullptr);
}

bool BruteforceSubmodule::HandleOpenAt(int ppid, const std::chrono::steady_clock::time_point& now,
                                       const std::string& exePath, int pid)
{
    return JudgeCall(ppid, pid, now, &exePath);
}

bool BruteforceSubmodule::JudgeCall(int ppid, int pid, std::chrono::steady_clock::time_point now,
                                    const std::string* exePath)
{
    const ScopeKey owner = task.KeyOf(pid, pid);
    if (limiters[owner].Update(window, maxCount, now)) {
        return true;
    }
    if (gates.TryClose(owner) && !RaiseAlarm(ppid, pid, exePath)) {
        gates.Open(owner);
    }
    return false;
}

bool BruteforceSubmodule::RaiseAlarm(int ppid, int pid, const std::string* exePath)
{
    AlertInfo info;
    setBruteForceAlertInfo(info);
    info.ppid = ppid;
    info.pid = pid;
    if (exePath != nullptr) {
        info.processName = *exePath;
    } else {
        SDK::ProcessUtils::GetProcessExePath(static_cast<unsigned int>(pid), info.processName);
    }
    return Alert(info, MakeForensicInfo(openByHandle), Json::Value{});
}

// Counters outlive their processes: processes that follow each other, each calling at full speed, would fill the memory
// with times that are never looked at again. A counter without times in the window counts like a new one, so dropping
// it changes no result. As many calls as there are counters pay for one round.
void BruteforceSubmodule::DropIdle(std::chrono::steady_clock::time_point now)
{
    if (--callsUntilRound > 0) {
        return;
    }
    std::erase_if(limiters, [&](const auto& item) { return item.second.IsIdle(window, now); });
    callsUntilRound = std::max(minCallsBetweenRounds, limiters.size());
}

void BruteforceSubmodule::setBruteForceAlertInfo(AlertInfo& info)
{
    alarmClass.CopyTo(info);
}

}  // namespace Engine
