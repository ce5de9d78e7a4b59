// SPDX-License-Identifier: Apache-2.0
#include "ShockerSubmodule.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string_view>

#include "ContainerEscapeDetectTask.h"
#include "ContainerEscapeUtil.h"
#include "ModuleLog.h"
#include "StateTable.h"

namespace Engine {
namespace {

using State = ShockerSubmodule::State;

constexpr AlarmClass alarmClass{"containerescape_0002", "Shocker attack", 4, 4, 3, 2000, 2042, 60};

constexpr char openByHandle[] = "open_by_handle_at";

// Of a thread. The first traced call only makes it known, whatever it is, so a listing must follow it to count.
constexpr std::array<Step<State, std::string_view>, 4> threadSteps{{
    {State::New, std::nullopt, State::Seen},
    {State::Seen, "getdents", State::Listed},
    {State::Seen, "getdents64", State::Listed},
    {State::Listed, openByHandle, State::Reported},
}};

// Of a container. It stays Listed: its gate says when the next alarm may come.
constexpr std::array<Step<State, std::string_view>, 3> containerSteps{{
    {State::New, "getdents", State::Listed},
    {State::New, "getdents64", State::Listed},
    {State::Listed, openByHandle, State::Reported},
}};

}  // namespace

ShockerSubmodule::ShockerSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo)
    : BaseSubmodule(task, "shocker_submodule", metaInfo)
{
}

ShockerSubmodule::~ShockerSubmodule() = default;

int ShockerSubmodule::Init()
{
    BaseSubmodule::Init({openByHandle, "getdents", "getdents64"}, {});
    return 0;
}

void ShockerSubmodule::DeInit()
{
    states.clear();
    gates.Clear();
    BaseSubmodule::DeInit();
}

void ShockerSubmodule::Reconfigure(const ContainerEscapeDetectPolicyContent& content)
{
    BaseSubmodule::Reconfigure(content);
    scope = content.scope;
    gates = AlarmGates(scope);
}

void ShockerSubmodule::HandleProcExit(int pid)
{
    Forget(pid);
    BaseSubmodule::HandleProcExit(pid);
}

void ShockerSubmodule::Forget(ScopeKey owner)
{
    states.erase(owner);
    gates.Forget(owner);
}

bool ShockerSubmodule::HandleEvent(const FtraceMessage& message)
{
    const int pid = static_cast<int>(message.get_number("common_pid"));
    const std::string_view call = FtraceSyscallNameView(message.name());
    State& state = states[scope == Scope::Thread ? pid : task.KeyOf(pid, pid)];
    ModuleLog::Debug(At{"ShockerSubmodule", 77}, "shocker got event %d, state is %d", pid, static_cast<int>(state));

    const State next = scope == Scope::Container ? Next(containerSteps, state, call) : Next(threadSteps, state, call);
    const bool isCompleted = state != State::Reported && next == State::Reported;
    state = isCompleted ? ProcEventGetDents(message, pid) : next;
    return true;
}

ShockerSubmodule::State ShockerSubmodule::ProcEventGetDents(const FtraceMessage& message, int pid)
{
    const ScopeKey owner = task.KeyOf(pid, pid);
    if (gates.TryClose(owner) && !RaiseAlarm(message, pid)) {
        gates.Open(owner);
    }
    return scope == Scope::Container ? State::Listed : State::Reported;
}

bool ShockerSubmodule::RaiseAlarm(const FtraceMessage& message, int pid)
{
    AlertInfo info;
    setShockerAlertInfo(info);
    info.pid = pid;
    info.processName = message.get_string("comm");
    // The handle does not tell the path; receivers expect the file's element all the same.
    return Alert(info, MakeForensicInfo(openByHandle), MakeFileInfo(""));
}

void ShockerSubmodule::setShockerAlertInfo(AlertInfo& info)
{
    alarmClass.CopyTo(info);
}

std::string ShockerSubmodule::GetContainerId(int pid)
{
    std::shared_ptr<ContainerInfo> container;
    if (GetMetaInfo() == nullptr || !GetMetaInfo()->GetContainerByPid(pid, container)) {
        return {};
    }
    return container->id;
}

bool ShockerSubmodule::IsMounted(const std::string& containerId, const std::string& path)
{
    std::shared_ptr<ContainerInfo> container;
    if (GetMetaInfo() == nullptr || !GetMetaInfo()->GetContainerById(containerId, container)) {
        return true;
    }
    return std::ranges::any_of(container->mountDestinations, [&path](const std::string& destination) {
        return ContainerEscapeUtil::StartsWith(path, destination);
    });
}

}  // namespace Engine
