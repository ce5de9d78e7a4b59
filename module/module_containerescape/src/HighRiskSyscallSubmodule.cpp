// SPDX-License-Identifier: Apache-2.0
#include "HighRiskSyscallSubmodule.h"

#include <chrono>
#include <cstdlib>
#include <utility>

#include "ContainerEscapeUtil.h"
#include "sdk/TimeUtils.h"

namespace Engine {
namespace {

constexpr AlarmClass alarmClass{"containerescape_0001", "High-Risk System Invocation", 6, 4, 3, 3000, 3016, 80};

constexpr std::size_t initialBuckets = 10;
constexpr std::chrono::seconds alarmGap{3600};

}  // namespace

HighRiskSyscallSubmodule::HighRiskSyscallSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo,
                                                   std::unordered_set<int> numbers)
    : BaseSubmodule(task, "HighRiskSyscall", metaInfo),
      highRiskNumbers(std::move(numbers)),
      highRiskNames(initialBuckets)
{
}

HighRiskSyscallSubmodule::~HighRiskSyscallSubmodule() = default;

int HighRiskSyscallSubmodule::Init()
{
    BaseSubmodule::Init(highRiskNames, {});
    return 0;
}

int HighRiskSyscallSubmodule::HandleFileNotifyMsg(FileNotifyMessage* /*message*/)
{
    return 0;
}

void HighRiskSyscallSubmodule::Reconfigure(const ContainerEscapeDetectPolicyContent& content)
{
    BaseSubmodule::Reconfigure(content);
    highRiskNumbers.clear();
    highRiskNames.clear();
    for (const std::string& call : content.highRiskCalls) {
        const int number = ContainerEscapeUtil::GetSyscallNumber(call);
        if (number >= 0) {
            highRiskNumbers.insert(number);
            highRiskNames.insert(call);
        }
    }
}

bool HighRiskSyscallSubmodule::HandleEvent(const FtraceMessage& message)
{
    // Into the same string each time: a name that is too long for the string's own buffer allocates once, not for each
    // event.
    callName.assign(FtraceSyscallNameView(message.name()));
    if (!highRiskNames.contains(callName)) {
        return false;
    }
    if (IsNeedToAggregateAlarm(callName)) {
        return true;
    }
    AlertInfo info;
    setHighRiskSyscallAlertInfo(info);
    info.pid = static_cast<int>(message.get_number("common_pid"));
    Alert(info, MakeForensicInfo(callName), Json::Value{});
    return true;
}

bool HighRiskSyscallSubmodule::IsNeedToAggregateAlarm(const std::string& name)
{
    const long now = SDK::TimeUtils::GetCurrentTimestampS();
    const auto last = lastAlarmTime.find(name);
    if (last == lastAlarmTime.end()) {
        lastAlarmTime.emplace(name, now);
        return false;
    }
    if (std::chrono::seconds{std::labs(now - last->second)} < alarmGap) {
        return true;
    }
    last->second = now;
    return false;
}

void HighRiskSyscallSubmodule::setHighRiskSyscallAlertInfo(AlertInfo& info)
{
    alarmClass.CopyTo(info);
}

}  // namespace Engine
