// SPDX-License-Identifier: Apache-2.0
#include "BruteforceSubmodule.h"

#include <algorithm>

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
    BaseSubmodule::DeInit();
}

void BruteforceSubmodule::HandleProcExit(int pid)
{
    BaseSubmodule::HandleProcExit(pid);
}

bool BruteforceSubmodule::HandleEvent(const FtraceMessage& message)
{
    if (FtraceSyscallNameView(message.name()) != openByHandle) {
        return true;
    }
    const int pid = static_cast<int>(message.get_number("common_pid"));
    const auto now = std::chrono::steady_clock::now();
    DropIdle(now);
    if (CountCall(pid, now)) {
        return true;
    }
    std::string exePath;
    SDK::ProcessUtils::GetProcessExePath(static_cast<unsigned int>(pid), exePath);
    RaiseAlarm(static_cast<int>(message.get_number("parent_pid")), pid, exePath);
    return false;
}

bool BruteforceSubmodule::HandleOpenAt(int ppid, const std::chrono::steady_clock::time_point& now,
                                       const std::string& exePath, int pid)
{
    if (CountCall(pid, now)) {
        return true;
    }
    RaiseAlarm(ppid, pid, exePath);
    return false;
}

bool BruteforceSubmodule::CountCall(int pid, std::chrono::steady_clock::time_point now)
{
    return limiters[pid].Update(window, maxCount, now);
}

void BruteforceSubmodule::RaiseAlarm(int ppid, int pid, const std::string& exePath)
{
    AlertInfo info;
    setBruteForceAlertInfo(info);
    info.ppid = ppid;
    info.pid = pid;
    info.processName = exePath;
    Alert(info, MakeForensicInfo(openByHandle), Json::Value{});
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
