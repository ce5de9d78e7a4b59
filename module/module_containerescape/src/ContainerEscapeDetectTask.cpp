// SPDX-License-Identifier: Apache-2.0
// The detection task's life and the way of an event through it. Its process table and its file notifications are in
// ContainerEscapeDetectTaskProcs.cpp and ContainerEscapeDetectTaskFiles.cpp.
#include "ContainerEscapeDetectTask.h"

#include <string_view>
#include <utility>

#include "BaseSubmodule.h"
#include "ContainerEscapeFeaturePolicy.h"
#include "ContainerEscapeTaskPolicy.h"
#include "FtraceUtils.h"
#include "ModuleLog.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

constexpr unsigned int queueCapacity = 1024;
constexpr int waitMs = 30;
constexpr int waitBatch = 128;
constexpr int messagesPerRun = 1024;

constexpr std::string_view scheduler = "sched:";
constexpr std::string_view exitEvent = "sched:sched_process_exit";
constexpr std::string_view forkEvent = "sched:sched_process_fork";
constexpr std::string_view execEvent = "sched:sched_process_exec";

constexpr char collectorTask[] = "container_collect_task";
constexpr char auditTask[] = "audit_task";

// CPU ticks at the last adjustment, one for each call site: trace events, each detector, process notices.
std::uint64_t lastFtraceTick = 0;
std::uint64_t lastDetectorTick = 0;
std::uint64_t lastProcTick = 0;

// Sleeps off what the thread used beyond its share since `lastTick`, where the agent limits shares at all.
void Throttle(std::uint64_t& lastTick, int line, const char* label)
{
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return;
    }
    const std::uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const std::uint64_t elapsed = now > lastTick ? now - lastTick : lastTick - now;
    if (elapsed > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu("ContainerEscapeDetectTask", line, label, now, elapsed);
        lastTick = now;
    }
}

const std::list<std::pair<std::string, std::string>>& SchedulerEvents()
{
    static const std::list<std::pair<std::string, std::string>> events{
        {"sched", "sched_process_exit"}, {"sched", "sched_process_fork"}, {"sched", "sched_process_exec"}};
    return events;
}

}  // namespace

ContainerEscapeDetectTask::ContainerEscapeDetectTask(const std::string& feature, ContainerMetaInfo* meta)
    : Framework::Task("container_escape_detect_task", feature, Framework::TaskCondition::EventLoop, queueCapacity),
      alarmFilter(2),
      containerMetaInfo(meta)
{
}

ContainerEscapeDetectTask::~ContainerEscapeDetectTask() = default;

void ContainerEscapeDetectTask::AttachSubmodule(std::unique_ptr<Submodule> submodule)
{
    if (!submodule) {
        return;
    }
    if (auto* receiver = dynamic_cast<AbstructMessage<FtraceMessage>::Receiver*>(submodule.get())) {
        ftraceReceivers.push_back(receiver);
    }
    if (auto* detector = dynamic_cast<BaseSubmodule*>(submodule.get())) {
        processDetectors.push_back(detector);
    }
    submodules.push_back(std::move(submodule));
}

void ContainerEscapeDetectTask::CountMerged(const std::string& classId)
{
    const std::lock_guard lock(mergedMutex);
    ++merged[classId];
}

std::map<std::string, std::uint64_t> ContainerEscapeDetectTask::Merged() const
{
    const std::lock_guard lock(mergedMutex);
    return merged;
}

int ContainerEscapeDetectTask::Init()
{
    RefreshPolicy(true);
    RegisterContainerProcListener();
    RegisterRealTimeProcListener();
    for (const auto& submodule : submodules) {
        submodule->Reconfigure(policyContent);
        submodule->Init();
    }
    ModuleLog::Trace("sent audit rule msg to audit task");
    return Task::Init();
}

int ContainerEscapeDetectTask::Run()
{
    if (Waiter().WaitAndHandleEvent(waitMs, waitBatch) != -1) {
        return 0;
    }
    BulkConsumeMsg(messagesPerRun);
    for (const auto& submodule : submodules) {
        submodule->RunOnce();
    }
    ForgetIdleContainers();
    return 0;
}

int ContainerEscapeDetectTask::UnInit()
{
    alarmFilter.Clear();
    UnregisterContainerProcListener();
    UnregisterRealTimeProcListener();
    for (const auto& submodule : submodules) {
        submodule->DeInit();
    }
    SendDirectMsg(auditTask, new AuditUnsubscribeMessage(this));
    ModuleLog::Information("Container escape task UnInit done");
    return Task::UnInit();
}

bool ContainerEscapeDetectTask::RefreshPolicy(bool force)
{
    // The version counts as applied before it is known to be ours: a policy that is not will not become one later.
    const bool featureChanged = featurePolicy.MarkApplied();
    const auto* feature = dynamic_cast<const ContainerEscapeFeaturePolicy*>(featurePolicy.Get());
    if (feature == nullptr) {
        return false;
    }
    if (featureChanged || force) {
        imageWhitelist = feature->GetContent();
    }

    const bool taskChanged = taskPolicy.MarkApplied() || force;
    const auto* settings = dynamic_cast<const ContainerEscapeTaskPolicy*>(taskPolicy.Get());
    if (!taskChanged) {
        return false;
    }
    if (settings != nullptr) {
        policyContent = settings->GetContent();
    }
    ModuleLog::Debug("got container escape policys");
    return true;
}

void ContainerEscapeDetectTask::SendContainerRegistration(bool subscribe)
{
    SendDirectMsg(collectorTask, new ContainerRegisterMessage(this, false, subscribe));
}

void ContainerEscapeDetectTask::RegisterContainerProcListener()
{
    SendContainerRegistration(true);
}

void ContainerEscapeDetectTask::UnregisterContainerProcListener()
{
    SendContainerRegistration(false);
}

void ContainerEscapeDetectTask::RegisterRealTimeProcListener()
{
    SendContainerRegistration(true);  // once more than needed; the collector counts a task once
    FtraceUtils::RegisterFtraceEvents(this, watchHandles, SchedulerEvents());
}

void ContainerEscapeDetectTask::UnregisterRealTimeProcListener()
{
    watchHandles.clear();
}

int ContainerEscapeDetectTask::Receive(const FtraceMessage& message)
{
    Throttle(lastFtraceTick, 126, name().c_str());
    const std::string_view event = message.name();
    if (!event.starts_with(scheduler)) {  // nearly always: one comparison for all three
        return Dispatch(message);
    }
    int pid = -1;
    if (event == exitEvent) {
        ForgetInDetectors(static_cast<int>(message.get_number("pid")));
        return RemoveProcess("", message);
    }
    if (event == forkEvent) {
        return CreateProcess("", message, pid);
    }
    if (event == execEvent) {
        return AddProcessInfo("", message, pid);
    }
    return Dispatch(message);
}

// An id that is used again starts anew in every detector. Only the kernel's events say so: a stop notice may be about a
// process that lives on, which must not lose its state.
void ContainerEscapeDetectTask::ForgetInDetectors(int pid)
{
    for (BaseSubmodule* detector : processDetectors) {
        detector->HandleProcExit(pid);
    }
}

void ContainerEscapeDetectTask::ForgetIdleContainers()
{
    for (const ScopeKey key : containerKeys.DropIdle()) {
        for (BaseSubmodule* detector : processDetectors) {
            detector->Forget(key);
        }
    }
}

int ContainerEscapeDetectTask::Dispatch(const FtraceMessage& message)
{
    const int pid = static_cast<int>(message.get_number("common_pid"));
    const auto process = procs.find(pid);
    if (process == procs.end()) {
        return -1;
    }
    dispatchedKey = KeyOf(process->second);  // once for all detectors
    dispatchedPid = pid;
    ModuleLog::Debug("Get syscall(%s), pid = %d", message.name(), pid);
    const bool isLimited = SDK::InnerCpuCtrlUtils::IsEnabled();  // asked once for all of them: it is set at the start
    int result = 0;
    for (auto* receiver : ftraceReceivers) {
        if (isLimited) {
            Throttle(lastDetectorTick, 30, "containerescape_task");
        }
        result = receiver->Receive(message);
        if (result != 0) {
            break;
        }
    }
    dispatchedPid = -1;
    return result;
}

int ContainerEscapeDetectTask::Receive(const ContainerProcMessage& message)
{
    Throttle(lastProcTick, 111, name().c_str());
    if (!message.info) {
        return 0;  // a notice about no process
    }
    ModuleLog::Debug("got proc %s from %s, pid = %d", message.info->executable, message.info->imageName,
                     message.info->pid);
    if (IsWhitelisted(message.info->imageName)) {
        return 0;
    }
    if (message.started) {
        CreateProcessByContainerMsg(message);
    } else {
        RemoveProcessByContainerMsg(message);
    }
    return 0;
}

}  // namespace Engine
