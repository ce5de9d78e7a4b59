// SPDX-License-Identifier: Apache-2.0
#include "DirtyCowSubmodule.h"

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "StateTable.h"
#include "sdk/ProcessUtils.h"

namespace Engine {
namespace {

using State = DirtyCowSubmodule::State;

constexpr AlarmClass alarmClass{"containerescape_0003", "DirtyCow attack", 4, 4, 3, 2000, 2042, 60};

// By x86-64 system-call number.
constexpr std::array<Step<State, std::int64_t>, 4> steps{{
    {State::Initial, 49, State::Bound},    // bind
    {State::Bound, 28, State::Advised},    // madvise
    {State::Advised, 101, State::Traced},  // ptrace
    {State::Traced, 43, State::Accepted},  // accept
}};

}  // namespace

DirtyCowSubmodule::DirtyCowSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo, bool suppressAlarm)
    : BaseSubmodule(task, "dirtycow", metaInfo), suppressAlarm(suppressAlarm)
{
}

DirtyCowSubmodule::~DirtyCowSubmodule() = default;

int DirtyCowSubmodule::Init()
{
    // The text of an audit rule, which names no trace event: the trace task refuses it, and nothing is traced for this
    // detector alone. Hosts that serve audit rules take it as it stands.
    BaseSubmodule::Init({"always,exit -S madvise -S ptrace"}, {});
    return 0;
}

void DirtyCowSubmodule::DeInit()
{
    states.clear();
    BaseSubmodule::DeInit();
}

int DirtyCowSubmodule::HandleFileNotifyMsg(FileNotifyMessage* /*message*/)
{
    return 0;
}

void DirtyCowSubmodule::HandleProcExit(int pid)
{
    states.erase(pid);
    BaseSubmodule::HandleProcExit(pid);
}

bool DirtyCowSubmodule::HandleEvent(const FtraceMessage& message)
{
    const int pid = static_cast<int>(message.get_number("common_pid"));
    State& state = states[pid];
    const State before = std::exchange(state, Next(steps, state, message.get_number("__syscall_nr")));
    if (state != State::Accepted) {
        return true;
    }
    if (before != State::Accepted && !suppressAlarm) {
        RaiseAlarm(message, pid);
    }
    return false;
}

void DirtyCowSubmodule::RaiseAlarm(const FtraceMessage& message, int pid)
{
    AlertInfo info;
    setDirtyCowAlertInfo(info);
    info.pid = pid;
    // Entry events have no such field, which reads as 0; Alert looks the parent up.
    info.ppid = static_cast<int>(message.get_number("parent_pid"));
    SDK::ProcessUtils::GetProcessExePath(static_cast<unsigned int>(pid), info.processName);
    Alert(info, MakeForensicInfo("accept"), Json::Value{});
}

void DirtyCowSubmodule::setDirtyCowAlertInfo(AlertInfo& info)
{
    alarmClass.CopyTo(info);
}

}  // namespace Engine
