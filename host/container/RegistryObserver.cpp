// SPDX-License-Identifier: Apache-2.0
#include "host/container/RegistryObserver.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "host/container/ContainerLog.h"
#include "sdk/NamespaceUtils.h"

namespace Engine {

namespace {

constexpr int maxForebears = 16;
constexpr std::size_t maxCommandName = 15;  // TASK_COMM_LEN without its zero byte (include/linux/sched.h)

int Number(const FtraceMessage& event, std::string_view field)
{
    return static_cast<int>(event.get_number(field));
}

// As the kernel makes a process's name from the file that it execs (begin_new_exec() in fs/exec.c).
std::string CommandName(const std::string& executable)
{
    const std::size_t slash = executable.rfind('/');
    return executable.substr(slash == std::string::npos ? 0 : slash + 1, maxCommandName);
}

// Ids are random digits with nearly every engine, so their first bytes tell containers apart.
TraceObserver::Origin OriginOf(const std::string& container)
{
    TraceObserver::Origin origin = 0;
    std::memcpy(&origin, container.data(), std::min(container.size(), sizeof origin));
    return origin == TraceObserver::notAdmitted ? 1 : origin;
}

}  // namespace

RegistryObserver::RegistryObserver(ContainerRegistry& registry, ProcReader& reader, NoticeReceivers& receivers,
                                   MetadataCache& cache)
    : registry(registry), reader(reader), receivers(receivers), cache(cache)
{
}

std::vector<std::pair<std::string, std::string>> RegistryObserver::ObservedEvents() const
{
    return {{"sched", "sched_process_fork"},
            {"sched", "sched_process_exec"},
            {"sched", "sched_process_exit"},
            {"cgroup", "cgroup_attach_task"}};
}

void RegistryObserver::OnEvent(const FtraceMessage& event, TraceSequencer& sequencer)
{
    lastEvent = event.When();
    const std::string& name = event.name();
    if (name == "sched:sched_process_fork") {
        OnFork(event, sequencer);
    } else if (name == "sched:sched_process_exit") {
        OnExit(event);
    } else if (name == "sched:sched_process_exec") {
        OnExec(event, sequencer);
    } else if (name == "cgroup:cgroup_attach_task") {
        OnAttach(event, sequencer);
    }
}

TraceObserver::Origin RegistryObserver::AdmitSyscall(int tid, int process, const FtraceMessage& event,
                                                     TraceSequencer& sequencer)
{
    const ContainerRegistry::Entry* entry = registry.FindOrLoad(tid, event.When());
    if (entry == nullptr || entry->state != ContainerRegistry::State::Inside) {
        LeaveOutHost(process, sequencer.Filter());
        return notAdmitted;
    }
    AnnounceIfUnknown(tid, *entry, event.When(), sequencer);
    return OriginOf(*entry->container);
}

void RegistryObserver::OnRound(Nanoseconds now, TraceSequencer& sequencer)
{
    if (mustResync && (!registry.IsSynced() || now - lastResync >= resyncPause)) {
        Resync(now, sequencer);
    }
    ledger.Unheard(receivers.TakeUnheard(), now);
    if (receivers.TakeArrival()) {
        ledger.Doubt();
        settled = now + settling;
        AnnounceProcesses(now, sequencer);
    }
    if (receivers.TakeLoss()) {
        ledger.Doubt();
    }
    AnnounceThose(registry.PromoteOverdue(now), now, sequencer);
    AnnounceAsked(now, sequencer);
    if (!receivers.IsEmpty()) {
        Withdraw(ledger.TakeExpired(now), sequencer);
    }
    registry.Purge(now);
}

void RegistryObserver::OnLoss(TraceSequencer& sequencer)
{
    mustResync = true;
    if (lastEvent != ContainerRegistry::longAgo && lastEvent - lastResync >= resyncPause) {
        Resync(lastEvent, sequencer);
    }
}

void RegistryObserver::OnFork(const FtraceMessage& event, TraceSequencer& sequencer)
{
    const int parent = Number(event, "parent_pid");
    const int child = Number(event, "child_pid");
    const auto birthGroup = [&](int process) -> std::optional<std::uint64_t> {
        SyscallFilter* filter = sequencer.Filter();
        return filter == nullptr || filter->IsLeftOut(process) ? std::nullopt : filter->TakeBirthGroup(process);
    };
    registry.ApplyFork(parent, child, event.When(), birthGroup);
    const ContainerRegistry::Entry* from = registry.Find(parent);
    if (from == nullptr || from->state != ContainerRegistry::State::Inside) {
        WithdrawIfHeld(child, event.When(), sequencer);
        return;
    }
    if (receivers.IsEmpty()) {
        ledger.MarkDead(child, event.When());  // what they know by that id is another process
        return;
    }
    // The event itself would make receivers know the parent, but neither its program nor its own parent.
    AnnounceIfUnknown(parent, *from, event.When(), sequencer);
    MakeRoom(1, event.When(), sequencer);
    ledger.Insert(child, event.When(), event.When() >= settled);
}

void RegistryObserver::OnExec(const FtraceMessage& event, TraceSequencer& sequencer)
{
    const int pid = Number(event, "pid");
    const int oldPid = Number(event, "old_pid");
    if (oldPid != pid) {
        WithdrawIfHeld(oldPid, event.When(), sequencer);
    }
    // Recorded first: whoever compares namespaces must not find a process of a container that has none yet.
    const auto beforeEntry = [&](const std::string& container) {
        RecordNamespaces(pid, container);
    };
    // Most programs that are started are the host's, and /proc need not be asked about these.
    const bool isInItsGroups = sequencer.Filter() != nullptr && sequencer.Filter()->IsLeftOut(pid);
    if (!registry.ApplyExec(pid, oldPid, event.get_string("filename"), event.When(), isInItsGroups, beforeEntry)) {
        return;
    }
    if (const ContainerRegistry::Entry* entry = registry.Find(pid); entry != nullptr) {
        AnnounceIfUnknown(pid, *entry, event.When(), sequencer);
    }
}

void RegistryObserver::OnAttach(const FtraceMessage& event, TraceSequencer& sequencer)
{
    const int pid = Number(event, "pid");
    const bool wasInside = registry.IsInside(pid);
    const ContainerRegistry::Text before = wasInside ? registry.Find(pid)->container : nullptr;
    registry.ApplyAttach(Number(event, "common_pid"), pid, event.get_string("dst_path"), event.When());
    const ContainerRegistry::Entry* entry = registry.Find(pid);
    if (!wasInside || entry == nullptr || entry->container == before) {
        return;
    }
    for (const int tid : ledger.Ids()) {  // other threads may have moved with it
        const ContainerRegistry::Entry* held = registry.Find(tid);
        if (held != nullptr && held->before == before && held->since == event.When()) {
            WithdrawIfHeld(tid, event.When(), sequencer);
        }
    }
}

void RegistryObserver::OnExit(const FtraceMessage& event)
{
    const int pid = Number(event, "pid");
    registry.ApplyExit(pid, event.When());
    ledger.MarkDead(pid, event.When());
}

// What differs from the registry holds from the last event on: the events to come may be older than what /proc says.
void RegistryObserver::Resync(Nanoseconds now, TraceSequencer& sequencer)
{
    registry.Resync(lastEvent, now);
    mustResync = false;
    lastResync = now;
    for (const int tid : ledger.Ids()) {
        const ContainerRegistry::Entry* entry = registry.Find(tid);
        if (entry == nullptr || entry->exit != ContainerRegistry::alive || !registry.IsInside(tid)) {
            ledger.MarkDead(tid, now);
        }
    }
    AnnounceProcesses(now, sequencer);
    if (sequencer.Filter() != nullptr) {
        for (const int process : reader.Processes()) {
            LeaveOutHost(process, sequencer.Filter());
        }
    }
    ContainerLog::Debug("read /proc as a whole: %z threads", registry.Size());
}

void RegistryObserver::AnnounceProcesses(Nanoseconds now, TraceSequencer& sequencer)
{
    if (receivers.IsEmpty()) {
        return;
    }
    for (const int pid : reader.Processes()) {
        if (ledger.Size() < maxAtArrival || ledger.MayHold(pid)) {
            AnnounceThose({pid}, now, sequencer);
        }
    }
}

void RegistryObserver::AnnounceThose(const std::vector<int>& tids, Nanoseconds now, TraceSequencer& sequencer)
{
    for (const int tid : tids) {
        const ContainerRegistry::Entry* entry = registry.Find(tid);
        if (entry != nullptr && entry->state == ContainerRegistry::State::Inside &&
            entry->exit == ContainerRegistry::alive) {
            AnnounceIfUnknown(tid, *entry, now, sequencer);
        }
    }
}

// A file notification may come when the process that it is about has ended, and was withdrawn for others already.
void RegistryObserver::AnnounceAsked(Nanoseconds now, TraceSequencer& sequencer)
{
    for (const int tid : registry.TakeAsked()) {
        const ContainerRegistry::Entry* entry = registry.Find(tid);
        if (entry == nullptr || entry->state != ContainerRegistry::State::Inside || receivers.IsEmpty()) {
            continue;
        }
        if (entry->exit == ContainerRegistry::alive) {
            AnnounceIfUnknown(tid, *entry, now, sequencer);
            continue;
        }
        if (!ledger.MayHold(tid)) {
            Announce(tid, *entry, now, sequencer);
        }
        ledger.Insert(tid, now, false);
        ledger.MarkDead(tid, now);
    }
}

void RegistryObserver::AnnounceIfUnknown(int tid, const ContainerRegistry::Entry& entry, Nanoseconds now,
                                         TraceSequencer& sequencer)
{
    if (!ledger.IsKnown(tid, now) && !receivers.IsEmpty()) {
        Announce(tid, entry, now, sequencer);
    }
}

void RegistryObserver::Announce(int tid, const ContainerRegistry::Entry& entry, Nanoseconds now,
                                TraceSequencer& sequencer)
{
    // A record that a receiver has already is not replaced by a notice.
    if (ledger.HoldsDead(tid)) {
        WithdrawIfHeld(tid, now, sequencer);
    }
    MakeRoom(ledger.MayHold(tid) ? 0 : 1, now, sequencer);
    receivers.Send(sequencer, StartNotice(tid, entry));
    ledger.Insert(tid, now, true);
}

void RegistryObserver::MakeRoom(std::size_t more, Nanoseconds now, TraceSequencer& sequencer)
{
    Withdraw(ledger.MakeRoom(more, now), sequencer);
}

void RegistryObserver::Withdraw(const std::vector<int>& tids, TraceSequencer& sequencer)
{
    for (const int tid : tids) {
        auto info = std::make_shared<ContainerProcMessage::ProcInfo>();
        info->pid = tid;
        const ContainerRegistry::Entry* entry = registry.Find(tid);
        if (entry != nullptr && entry->container != nullptr) {
            info->containerId = *entry->container;
        }
        receivers.SendStop(sequencer, std::move(info));
    }
}

// With nobody to tell, the list keeps the id as a dead one: whoever comes back must still be told.
void RegistryObserver::WithdrawIfHeld(int tid, Nanoseconds when, TraceSequencer& sequencer)
{
    if (!ledger.MayHold(tid)) {
        return;
    }
    if (receivers.IsEmpty()) {
        ledger.MarkDead(tid, when);
        return;
    }
    ledger.Forget(tid);
    Withdraw({tid}, sequencer);
}

// What the registry says lags behind, so /proc has the last word. A parent that makes no watched call itself would hand
// on to each of its children that they are recorded.
void RegistryObserver::LeaveOutHost(int process, SyscallFilter* filter)
{
    for (int steps = 0; filter != nullptr && process > 0 && steps < maxForebears; ++steps) {
        const std::optional<SyscallFilter::Ticket> ticket = filter->TicketOf(process);
        const ContainerRegistry::Entry* entry = registry.Find(process);
        if (!ticket || entry == nullptr || entry->state != ContainerRegistry::State::Host ||
            reader.ContainerOf(process) != std::string{}) {
            return;
        }
        filter->LeaveOut(process, *ticket);
        process = entry->parent;
    }
}

// The container's first process, at the moment at which it starts: later it may have left its namespaces.
void RegistryObserver::RecordNamespaces(int tid, const std::string& container)
{
    MetadataCache::Namespaces namespaces;
    if (!registry.HasOther(container, tid) && SDK::NamespaceUtils::GetProcessNamespace(tid, namespaces) == 0) {
        cache.RecordNamespaces(container, namespaces);
    }
}

std::shared_ptr<ContainerProcMessage> RegistryObserver::StartNotice(int tid, const ContainerRegistry::Entry& entry)
{
    auto info = std::make_shared<ContainerProcMessage::ProcInfo>();
    info->containerId = *entry.container;
    info->pid = tid;
    info->ppid = entry.parent;
    info->executable = entry.executable == nullptr ? reader.ExecutableOf(tid) : *entry.executable;
    info->name = CommandName(info->executable);
    // Receivers refuse whitelisted images' processes, but not their forks: what a fork made known stays so.
    info->imageName = entry.hasForked ? std::string{} : cache.ImageNameOf(info->containerId);
    return std::make_shared<ContainerProcMessage>(true, std::move(info));
}

}  // namespace Engine
