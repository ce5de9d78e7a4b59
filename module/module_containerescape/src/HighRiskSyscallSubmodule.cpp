// SPDX-License-Identifier: Apache-2.0
#include "HighRiskSyscallSubmodule.h"

#include <utility>

#include "ContainerEscapeDetectTask.h"
#include "ContainerEscapeUtil.h"

namespace Engine {
namespace {

constexpr AlarmClass alarmClass{"containerescape_0001", "High-Risk System Invocation", 6, 4, 3, 3000, 3016, 80};

constexpr std::size_t initialBuckets = 10;

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
    const ScopeKey owner = OwnerOf(message);
    if (IsNeedToAggregateAlarm(callName, owner)) {
        return true;
    }
    AlertInfo info;
    setHighRiskSyscallAlertInfo(info);
    info.pid = static_cast<int>(message.get_number("common_pid"));
    if (!Alert(info, MakeForensicInfo(callName), Json::Value{})) {
        gates.at(callName).Open(owner);
    }
    return true;
}

ScopeKey HighRiskSyscallSubmodule::OwnerOf(const FtraceMessage& message) const
{
    return task.GetScope() == Scope::Thread ? hostKey
                                            : task.KeyOf(static_cast<int>(message.get_number("common_pid")), hostKey);
}

bool HighRiskSyscallSubmodule::IsNeedToAggregateAlarm(const std::string& name, ScopeKey owner)
{
    auto gate = gates.find(name);
    if (gate == gates.end()) {
        gate = gates.emplace(name, AlarmGates::hour).first;
    }
    return !gate->second.TryClose(owner);
}

void HighRiskSyscallSubmodule::Forget(ScopeKey container)
{
    for (auto& [call, gate] : gates) {
        gate.Forget(container);
    }
}

void HighRiskSyscallSubmodule::setHighRiskSyscallAlertInfo(AlertInfo& info)
{
    alarmClass.CopyTo(info);
}

}  // namespace Engine
