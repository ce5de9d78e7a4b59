// SPDX-License-Identifier: Apache-2.0
#include "host/container/RegistryObserver.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "host/container/ContainerLog.h"
#include "host/ftrace/TraceBarrier.h"
#include "host/sdk/Impairments.h"
#include "sdk/NamespaceUtils.h"

namespace Engine {

namespace {

constexpr std::chrono::seconds loudestPeriod{1};
constexpr int maxAncestors = 16;

// A runtime in set-up that was moved to a group without a container's name is still followed for so long.
constexpr std::chrono::seconds setUpPatience{10};
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

RegistryObserver::RegistryObserver(ContainerRegistry& registry, SDK::SystemView& system, NoticeReceivers& receivers,
                                   MetadataCache& cache, BundleReader& bundles)
    : registry(registry), system(system), receivers(receivers), cache(cache), bundles(bundles)
{
}

std::vector<std::pair<std::string, std::string>> RegistryObserver::ObservedEvents() const
{
    return {{"sched", "sched_process_fork"},
            {"sched", "sched_process_exec"},
            {"sched", "sched_process_exit"},
            {"cgroup", "cgroup_attach_task"}};
}

void RegistryObserver::OnEvent(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer)
{
    lastEvent = event.When();
    const std::string& name = event.name();
    if (name == "sched:sched_process_fork") {
        OnFork(event, source, sequencer);
    } else if (name == "sched:sched_process_exit") {
        registry.ApplyExit(Number(event, "pid"), event.When());
    } else if (name == "sched:sched_process_exec") {
        OnExec(event, source, sequencer);
    } else if (name == "cgroup:cgroup_attach_task") {
        OnAttach(event, source, sequencer);
    }
}

TraceObserver::Origin RegistryObserver::AdmitSyscall(int tid, const RecordSource& source, const FtraceMessage& event,
                                                     TraceSequencer& sequencer)
{
    StopLastBearer(tid, event.When(), source, sequencer);
    const Entry* entry = registry.FindOrLoad(tid, event.When(), source);
    registry.FollowSetUp(tid, entry, source, event.When());
    if (entry != nullptr && entry->IsInside() && entry->since > event.When() && entry->before == nullptr) {
        return notAdmitted;  // it was not in the container yet
    }
    if (entry == nullptr || !entry->IsInside()) {
        ExcludeHost(source.process, event.When(), sequencer.Filter());
        return notAdmitted;
    }
    Announce(tid, *entry, sequencer);
    loudest.Count(entry->container);
    return OriginOf(*entry->container);
}

// A process may have ended: what another source tells comes later than the event. Room is made for all of them first: a
// generation that ended between two of them would take back the earlier one.
void RegistryObserver::OnActivity(std::span<const int> pids, TraceSequencer& sequencer)
{
    static_assert(TraceBarrier::mostActive <= Announcements::limit);
    const auto isNew = [this](int pid) {
        const Entry* entry = registry.Find(pid);
        return entry != nullptr && entry->IsInside() && !announcements.IsAnnounced(pid);
    };
    MakeRoom(static_cast<std::size_t>(std::count_if(pids.begin(), pids.end(), isNew)), sequencer);
    for (const int pid : pids) {
        if (isNew(pid)) {
            Announce(pid, *registry.Find(pid), sequencer);
        }
    }
}

void RegistryObserver::OnRound(Nanoseconds now, TraceSequencer& sequencer)
{
    announcements.ForgetStopped();
    if (mustResync && (!registry.IsSynced() || now - lastResync >= resyncPause)) {
        Resync(now, sequencer);
        mustAnnounceAnew = true;
    }
    const bool hasArrived = receivers.TakeArrival();
    mustAnnounceAnew = receivers.TakeLoss() || cache.TakeLate() || mustAnnounceAnew || hasArrived;
    if (mustAnnounceAnew && (hasArrived || announcements.IsEndHandled() || now - lastAnew >= repeatPause)) {
        mustAnnounceAnew = false;
        lastAnew = now;
        AnnounceAnew(Announcements::Loss::Possible, sequencer);
    }
    AnnounceLiving(registry.PromoteOverdue(now), sequencer);
    // Not what had not been dead for long enough in the last round: after a long pause its accesses are yet to come.
    if (const auto living = registry.Purge(std::exchange(lastRound, now))) {
        cache.KeepLiving(*living, MetadataCache::Clock::now());
        bundles.KeepOnly(*living);
    }
    if (now >= nextLoudest) {
        nextLoudest = now + loudestPeriod;
        SDK::Impairments::SetLoudest(SDK::Impairments::Source::Trace, loudest.Take());
    }
}

void RegistryObserver::OnLoss(TraceSequencer& sequencer)
{
    mustResync = true;
    if (lastEvent != ContainerTable::longAgo && lastEvent - lastResync >= resyncPause) {
        Resync(lastEvent, sequencer);
        AnnounceAnew(Announcements::Loss::Possible, sequencer);
    }
}

void RegistryObserver::OnFork(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer)
{
    const int parent = Number(event, "parent_pid");
    const int child = Number(event, "child_pid");
    StopLastBearer(parent, event.When(), source, sequencer);
    registry.ApplyFork(parent, child, event.When(), source);
    if (!registry.IsInside(parent)) {
        StopIfAnnounced(child, sequencer);
        ExcludeHost(source.process, event.When(), sequencer.Filter());
        return;
    }
    loudest.Count(registry.Find(parent)->container);
    // The event itself would make receivers know the parent, but neither its program nor its own parent.
    MakeRoom(2, sequencer);
    Announce(parent, *registry.Find(parent), sequencer);
    if (!receivers.AllGetEvent(sequencer)) {
        Announce(child, *registry.Find(child), sequencer);
    } else if (!receivers.IsEmpty()) {
        announcements.Add(child);
    }
}

void RegistryObserver::OnExec(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer)
{
    const int pid = Number(event, "pid");
    const int oldPid = Number(event, "old_pid");
    const std::string& filename = event.get_string("filename");
    if (oldPid != pid) {
        StopIfAnnounced(oldPid, sequencer);
    } else {
        StopLastBearer(pid, event.When(), source, sequencer);
    }
    const auto exec = registry.DecideExec(pid, oldPid, filename, event.When(), source,
                                          static_cast<unsigned int>(event.get_number("place")));
    if (!exec) {
        return;
    }
    if (exec->enters) {
        // First: a process that is seen in its container has the container's namespaces to be compared with.
        RecordNamespaces(pid, *exec->container);
    }
    registry.ApplyExec(*exec, filename, event.When());
    if (exec->enters) {
        Announce(pid, *registry.Find(pid), sequencer);
    } else if (exec->state == ContainerTable::State::Host) {
        ExcludeHost(pid, event.When(), sequencer.Filter());
    }
}

// What the host takes out of its container, or moves to another, is announced anew with all others: that is rare.
void RegistryObserver::OnAttach(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer)
{
    ContainerRegistry::Move move;
    move.mover = Number(event, "common_pid");
    move.source = source;
    move.pid = Number(event, "pid");
    const std::string& path = event.get_string("dst_path");
    move.group.path = path.empty() ? system.PathOfCgroup(static_cast<std::uint64_t>(event.get_number("dst_id"))) : path;
    move.group.hierarchy = Number(event, "dst_root");
    move.group.owner = static_cast<unsigned int>(event.get_number("owner"));
    // The kernel's own event does not tell.
    if (const int parent = Number(event, "parent"); parent != 0) {
        move.past = {parent, event.get_string("executed"), Number(event, "born_in_setup") != 0};
    }
    move.identity = static_cast<std::uint32_t>(event.get_number("identity"));
    move.identityBefore = static_cast<std::uint32_t>(event.get_number("identity_before"));
    if (move.identity != 0 && move.identityBefore == 0) {
        StopIfAnnounced(move.pid, sequencer);  // it was in no container: another bearer of the id was
    }
    if (registry.ApplyAttach(move, event.When())) {
        EndGeneration(Announcements::Loss::None, sequencer);
    }
    // Its names are known by the time its program runs.
    const Entry* entry = registry.Find(move.pid);
    const std::string id =
        entry != nullptr && entry->container != nullptr ? *entry->container : registry.IdInSetUp(move.identity);
    if (!id.empty()) {
        bundles.Want(id, move.pid, false);
    }
}

// What differs from the registry holds from the last event on: the events to come may be older than what /proc says.
void RegistryObserver::Resync(Nanoseconds now, TraceSequencer& sequencer)
{
    registry.Resync(lastEvent, now, sequencer.Filter());
    const std::vector<int> processes = system.Processes();
    for (const int process : processes) {
        if (const Entry* entry = registry.Find(process); entry != nullptr && entry->container != nullptr) {
            bundles.Want(*entry->container, process, false);
        }
    }
    mustResync = false;
    lastResync = now;
    for (const int process : processes) {
        ExcludeHost(process, now, sequencer.Filter());
    }
    ContainerLog::Debug("read /proc as a whole");
}

// What the registry says lags behind, so /proc has the last word. A parent that does nothing that is recorded would
// hand on to each of its children that they are, so the ancestors are looked at, too.
void RegistryObserver::ExcludeHost(int process, Nanoseconds when, SyscallFilter* filter)
{
    for (int steps = 0; filter != nullptr && process > 0 && steps < maxAncestors; ++steps) {
        const std::optional<SyscallFilter::Ticket> ticket = filter->TicketOf(process);
        const Entry* entry = ticket ? registry.FindOrLoad(process, when) : nullptr;
        if (entry == nullptr || entry->state != ContainerTable::State::Host ||
            (entry->inSetUp && when - entry->seen < setUpPatience) ||
            registry.ContainerByGroups(process) != std::string{}) {
            return;
        }
        filter->Exclude(process, *ticket);
        registry.ForgetHost(process);
        const auto stat = system.StatOf(process);
        process = stat ? stat->parent : 0;
    }
}

void RegistryObserver::Announce(int tid, const Entry& entry, TraceSequencer& sequencer)
{
    if (announcements.IsAnnounced(tid) || receivers.IsEmpty()) {
        return;
    }
    MakeRoom(1, sequencer);
    bundles.Want(*entry.container, tid, true);
    receivers.Send(sequencer, StartNotice(tid, entry));
    announcements.Add(tid);
}

void RegistryObserver::MakeRoom(std::size_t more, TraceSequencer& sequencer)
{
    if (!announcements.HasRoomFor(more)) {
        EndGeneration(Announcements::Loss::None, sequencer);
    }
}

void RegistryObserver::AnnounceAnew(Announcements::Loss loss, TraceSequencer& sequencer)
{
    EndGeneration(loss, sequencer);
    if (!receivers.IsEmpty()) {
        AnnounceLiving(system.Processes(), sequencer);
    }
}

void RegistryObserver::AnnounceLiving(const std::vector<int>& pids, TraceSequencer& sequencer)
{
    for (const int pid : pids) {
        const Entry* entry = registry.Find(pid);
        if (announcements.Size() < maxAtOnce && entry != nullptr && entry->IsInside() && entry->IsAlive()) {
            Announce(pid, *entry, sequencer);
        }
    }
}

// Without a receiver the generation goes on: the next one to come may be one that has gone, with its table.
void RegistryObserver::EndGeneration(Announcements::Loss loss, TraceSequencer& sequencer)
{
    if (receivers.IsEmpty()) {
        return;
    }
    for (const int tid : announcements.EndGeneration(loss)) {
        SendStop(tid, sequencer);
    }
    receivers.Send(sequencer, announcements.EndOfGeneration(receivers.Count()));
}

void RegistryObserver::StopIfAnnounced(int tid, TraceSequencer& sequencer)
{
    if (!receivers.IsEmpty() && announcements.Remove(tid)) {
        SendStop(tid, sequencer);
    }
}

// A process has the id whose fork was not told.
void RegistryObserver::StopLastBearer(int tid, Nanoseconds when, const RecordSource& source, TraceSequencer& sequencer)
{
    if (const Entry* last = registry.Find(tid); last != nullptr && ContainerRegistry::IsAnother(*last, when, source)) {
        StopIfAnnounced(tid, sequencer);
    }
}

void RegistryObserver::SendStop(int tid, TraceSequencer& sequencer)
{
    auto info = std::make_shared<ContainerProcMessage::ProcInfo>();
    info->pid = tid;
    const Entry* entry = registry.Find(tid);
    if (entry != nullptr && entry->container != nullptr) {
        info->containerId = *entry->container;
    }
    receivers.Send(sequencer, std::make_shared<ContainerProcMessage>(false, std::move(info)));
}

// The container's first process, at the moment at which it starts: later it may have left its namespaces.
void RegistryObserver::RecordNamespaces(int tid, const std::string& container)
{
    MetadataCache::Namespaces namespaces;
    if (!registry.HasOther(container, tid) && SDK::NamespaceUtils::GetProcessNamespace(tid, namespaces) == 0) {
        cache.RecordNamespaces(container, namespaces);
    }
}

std::shared_ptr<ContainerProcMessage> RegistryObserver::StartNotice(int tid, const Entry& entry)
{
    auto info = std::make_shared<ContainerProcMessage::ProcInfo>();
    info->containerId = *entry.container;
    info->pid = tid;
    info->ppid = entry.parent;
    if (entry.executable != nullptr) {
        info->executable = *entry.executable;
    } else {
        system.ExecutablePath(static_cast<unsigned int>(tid), info->executable);
    }
    info->name = CommandName(info->executable);
    // Receivers refuse whitelisted images' processes, but not their forks: what a fork made known stays so.
    info->imageName = entry.hasForked ? std::string{} : cache.AnnounceImageOf(info->containerId);
    return std::make_shared<ContainerProcMessage>(true, std::move(info));
}

}  // namespace Engine
