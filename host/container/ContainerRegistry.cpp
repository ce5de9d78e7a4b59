// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerRegistry.h"

#include <algorithm>
#include <unordered_set>

#include "host/container/ExecutedProgram.h"
#include "host/ftrace/SyscallProbeLayout.h"
#include "host/sdk/CgroupPath.h"

namespace Engine {

void ContainerRegistry::ApplyFork(int parent, int child, Nanoseconds when, const RecordSource& source)
{
    Entry made = ChildOf(parent, child, when, source);
    if (const Entry* old = Find(child); old != nullptr) {
        made.before = old->Visible();
        made.exit = !old->IsAlive() && old->exit >= when ? old->exit : ContainerTable::alive;
    }
    made.since = when;
    made.hasForked = IsInside(parent);
    table.PutIfRoom(child, std::move(made));
    if (IsInside(parent) && !Find(parent)->hasForked) {
        table.Update(parent, [](Entry& entry) { entry.hasForked = true; });
    }
}

ContainerRegistry::Entry ContainerRegistry::ChildOf(int parent, int child, Nanoseconds when, const RecordSource& source)
{
    Entry made;
    const Entry* from = FindOrLoad(parent, when, source);
    FollowSetUp(parent, from, source, when);
    if (from != nullptr) {
        made.state = from->state;
        made.inSetUp = from->inSetUp;
        made.bornInSetUp = from->inSetUp;
        made.wasMovedInside = from->wasMovedInside;
        made.container = from->container;
        made.executable = from->executable;
        made.executed = from->executed;
    }
    made.identity = source.identity.number;
    // A runtime made its child straight in the container's group, or the parent has gone before it was ever seen.
    if (from == nullptr || (made.state == State::Host && made.inSetUp)) {
        if (const auto found = RuntimeSetUp::Look(system, groups, child); found && found->state != State::Host) {
            made.state = from == nullptr ? found->state : State::Entering;
            made.container = ContainerTable::Shared(found->container);
        }
    }
    made.seen = when;
    made.parent = parent;
    return made;
}

bool ContainerRegistry::ApplyAttach(const Move& move, Nanoseconds when)
{
    // A mover that is not known is not kept: nothing would tell of its end.
    // One that gives an identity is the host's, whatever /proc says by now: it may have moved itself.
    const Entry* by = Find(move.mover);
    const auto mover =
        by == nullptr && move.identity == 0 ? RuntimeSetUp::Look(system, groups, move.mover) : std::nullopt;
    if (move.identity == 0 && (by != nullptr ? by->IsInside()
                                             : identities.Find(move.source.identity.number) != nullptr ||
                                                   (mover && mover->state == State::Inside))) {
        return false;
    }
    const int pid = move.pid;
    const ContainerGroups::Claimed claimed = groups.Claim(move.group);
    const std::string& id = claimed.id;
    if (!claimed.displaced.empty()) {
        Relabel(id, claimed.displaced);
    }
    if (move.identity != 0 && !id.empty()) {
        identities.Put(move.identity, ContainerTable::Shared(id));
    }
    const Entry* entry = !id.empty() || move.past ? LoadMoved(move, when) : FindOrLoad(pid, when);
    if (id.empty() && move.identity != 0 && move.group.path.size() > 1 && entry != nullptr && entry->inSetUp) {
        ContainerIdentities::SetUp& setUp = identities.SetUpOf(move.identity);
        if (setUp.groups.empty()) {
            setUp.id = RuntimeSetUp::IdGivenTo(system, move.mover);
        }
        setUp.groups.push_back(move.group);
    }
    if (entry != nullptr && move.identity != 0) {
        table.Update(pid, [&](Entry& moved) { moved.identity = move.identity; });
    }
    if (entry == nullptr || !entry->IsAlive() || ContainerTable::Same(entry->container, id)) {
        return false;
    }
    // It may have left the container's group in one hierarchy and be in it still in the others.
    if (id.empty() && !ContainerByGroups(pid).value_or(*entry->container).empty()) {
        return false;
    }
    const bool wasInside = entry->IsInside();
    const State next = id.empty() ? State::Host : wasInside ? State::Inside : State::Entering;
    table.Update(pid, [&](Entry& moved) {
        moved.MoveTo(next, ContainerTable::Shared(id), when);
        moved.wasMovedInside = wasInside;
    });
    if (wasInside) {
        MoveOthers(pid, *entry, when);
    }
    return wasInside;
}

// A thread that was not followed and is moved into a container now. It has just been outside, so /proc, which may show
// it inside already, is not asked. Where its fork was lost, it must not count as the runtime for ever if it never
// execs.
const ContainerRegistry::Entry* ContainerRegistry::LoadMoved(const Move& move, Nanoseconds when)
{
    const Entry* known = Find(move.pid);
    // The last bearer of the id had an identity and this one had none: that one's end was not told. Nor need it have
    // been where /proc alone showed that one, and its identity could not be had.
    const bool isAnother = known != nullptr && move.identity != 0 && move.identityBefore == 0 &&
                           (known->identity != 0 || !proc.IsSince(move.pid, *known));
    if (known == nullptr || (move.past && (known->state == State::Host || !known->IsAlive() || isAnother))) {
        Entry made;
        if (move.past) {
            made.parent = move.past->parent;
            const bool isSelfExecuted = RuntimeSetUp::IsSelfExecution(move.past->executed);
            made.inSetUp = isSelfExecuted || RuntimeSetUp::IsManager(system, made.parent);
            made.bornInSetUp = isSelfExecuted && move.past->bornInSetUp;
        } else {
            const auto stat = system.StatOf(move.pid);
            made.parent = stat ? stat->parent : -1;
            proc.Believe(move.pid, when);
        }
        made.seen = when;
        if (known != nullptr) {  // of the id's last bearer
            made.before = known->Visible();
            made.since = when;
        }
        table.Put(move.pid, std::move(made));
    }
    return Find(move.pid);
}

// The event named the leader only; /proc tells which of the other threads went with it.
void ContainerRegistry::MoveOthers(int leader, const Entry& like, Nanoseconds when)
{
    const std::string target = like.container == nullptr ? std::string{} : *like.container;
    for (const int tid : system.Threads(leader)) {
        if (tid != leader && IsInside(tid) && ContainerByGroups(tid) == target) {
            table.Update(tid, [&](Entry& entry) { entry.MoveTo(like.state, like.container, when); });
        }
    }
}

std::optional<ContainerRegistry::Exec> ContainerRegistry::DecideExec(int pid, int oldPid, std::string_view filename,
                                                                     Nanoseconds when, const RecordSource& source,
                                                                     unsigned int place)
{
    if (oldPid != pid) {
        table.Erase(oldPid);
    }
    const bool wasKnown = Find(pid) != nullptr;
    // The leader may have ended before the thread that takes over its id.
    const Entry* entry = oldPid != pid && wasKnown ? Find(pid) : FindOrLoad(pid, when, source);
    if (entry == nullptr) {
        return std::nullopt;
    }
    Exec exec{pid, entry->state, entry->container, RuntimeSetUp::IsSelfExecution(filename)};
    exec.identity = source.identity.number;
    if (exec.state == State::Host) {
        // Newer runtimes create the child inside the group (clone3(2), CLONE_INTO_CGROUP): no attach event told us.
        exec.container = ContainerTable::Shared(ContainerByGroups(pid).value_or(std::string{}));
        if (exec.container == nullptr && !exec.isSelfExecution && IsSetUpByRuntime(pid, *entry, place)) {
            exec.container = AdoptGroup(pid, source.identity.number);
        }
    }
    if (exec.state != State::Inside && exec.container != nullptr) {
        const bool isRuntime = RuntimeSetUp::Continues(system, pid, filename, entry->bornInSetUp, place);
        exec.state = isRuntime ? State::Entering : State::Inside;
    }
    if (exec.state != State::Host && source.program != nullptr) {
        exec.executed = ExecutedProgram::Details(pid, *source.program);
    }
    exec.enters = exec.state == State::Inside && !(wasKnown && entry->IsInside());
    return exec;
}

void ContainerRegistry::ApplyExec(const Exec& exec, std::string_view filename, Nanoseconds when)
{
    const Text executable = exec.state == State::Host ? nullptr : ContainerTable::Shared(filename);
    table.Update(exec.pid, [&](Entry& entry) {
        entry.exit = ContainerTable::alive;  // the leader may have ended before the thread that takes over its id
        entry.inSetUp = exec.isSelfExecution;
        entry.executable = executable;
        entry.executed = exec.executed;
        entry.identity = exec.identity;  // a thread that takes its leader's id over may lack the leader's
        if (exec.state != entry.state) {
            entry.MoveTo(exec.state, exec.container, when);
        } else if (exec.state == State::Inside) {
            entry.since = std::min(entry.since, when);  // it was promoted by the clock, which is ahead of the events
        }
    });
}

const ContainerRegistry::Entry* ContainerRegistry::FindOrLoad(int tid, Nanoseconds when, const RecordSource& source)
{
    const Entry* known = Find(tid);
    if (known != nullptr && !IsAnother(*known, when, source)) {
        return known;
    }
    // What acts after the exit has taken the id over: its fork was not told, as the host's are not, or was shed.
    const Text before = known == nullptr ? nullptr : known->Visible();
    const Nanoseconds since = known == nullptr ? ContainerTable::longAgo : when;
    if (const Entry* process = Find(source.process); process != nullptr && !IsAnother(*process, when, source)) {
        Entry made = *process;
        made.before = known == nullptr ? made.before : before;
        made.since = known == nullptr ? made.since : since;
        table.Put(tid, std::move(made));
        return Find(tid);
    }
    std::optional<Entry> made = proc.Load(tid, source.identity, since, when);
    if (!made) {
        return nullptr;
    }
    made->before = before;
    table.Put(tid, std::move(*made));
    return Find(tid);
}

void ContainerRegistry::ForgetHost(int process)
{
    const auto forget = [this](int tid) {
        // One that has just been another container's still answers for the past.
        if (const Entry* entry = Find(tid);
            entry != nullptr && entry->state == State::Host && entry->before == nullptr) {
            table.Erase(tid);
        }
    };
    forget(process);
    for (const int tid : system.Threads(process)) {
        forget(tid);
    }
}

void ContainerRegistry::FollowSetUp(int tid, const Entry* entry, const RecordSource& source, Nanoseconds when)
{
    const State next = source.identity.isInSetUp ? State::Entering : State::Inside;
    if (entry == nullptr || source.identity.number == 0 || entry->state == next || entry->container == nullptr ||
        entry->wasMovedInside) {
        return;
    }
    table.Update(tid, [&](Entry& known) { known.MoveTo(next, known.container, when); });
}

bool ContainerRegistry::IsInside(int tid) const
{
    const Entry* entry = Find(tid);
    return entry != nullptr && entry->IsInside();
}

bool ContainerRegistry::HasOther(const std::string& container, int tid) const
{
    return std::any_of(table.Entries().begin(), table.Entries().end(), [&](const auto& item) {
        const Entry& entry = item.second;
        return item.first != tid && entry.IsInside() && entry.IsAlive() &&
               ContainerTable::Same(entry.container, container);
    });
}

std::optional<ContainerRegistry::Ids> ContainerRegistry::Purge(Nanoseconds now)
{
    table.Purge(now);
    if (now < nextPrune) {
        return std::nullopt;
    }
    nextPrune = now + prunePeriod;
    return PruneGone();
}

ContainerRegistry::Ids ContainerRegistry::PruneGone()
{
    Ids living;
    for (const auto& [tid, entry] : table.Entries()) {
        if (entry.container != nullptr) {
            living.insert(*entry.container);
        }
    }
    groups.Prune(living);
    identities.Prune(living);
    return living;
}

void ContainerRegistry::Resync(Nanoseconds since, Nanoseconds now, SyscallFilter* filter)
{
    proc.UpdateAll(since, now, !IsSynced(), filter);
    synced.store(true, std::memory_order_relaxed);
}

std::optional<std::string> ContainerRegistry::ContainerByGroups(int tid) const
{
    const auto of = system.Cgroups(tid);
    return of ? std::optional{groups.Find(*of)} : std::nullopt;
}

// Those that had the id wrongly. Rare, so every entry may be looked at.
void ContainerRegistry::Relabel(const std::string& id, const std::string& next)
{
    const Text label = ContainerTable::Shared(next);
    std::vector<int> wrong;
    for (const auto& [tid, entry] : table.Entries()) {
        if (ContainerTable::Same(entry.container, id)) {
            wrong.push_back(tid);
        }
    }
    for (const int tid : wrong) {
        table.Update(tid, [&label](Entry& entry) { entry.container = label; });
    }
    identities.Relabel(id, label);
}

// A group's name does not tell. What was moved there in set-up, and has now left the host's root directory and mounts,
// is a container's first process.
bool ContainerRegistry::IsSetUpByRuntime(int pid, const Entry& entry, unsigned int place) const
{
    const bool hasLeft = (place & CE_PLACE_KNOWN) != 0 ? (place & CE_OTHER_MOUNTS) != 0 && (place & CE_OTHER_ROOT) != 0
                                                       : RuntimeSetUp::HasLeftHost(system, pid);
    return hasLeft && entry.inSetUp;
}

ContainerRegistry::Text ContainerRegistry::AdoptGroup(int pid, std::uint32_t identity)
{
    Text id;
    ContainerIdentities::SetUp setUp = identities.TakeSetUp(identity);
    if (setUp.groups.empty()) {
        setUp.groups = system.Cgroups(pid).value_or(std::vector<SDK::Cgroup>{});
    }
    for (const SDK::Cgroup& group : setUp.groups) {
        if (group.path.size() > 1) {
            const std::string adopted = groups.Adopt(group, setUp.id);
            id = id == nullptr ? ContainerTable::Shared(adopted) : id;
        }
    }
    if (id != nullptr && identity != 0) {
        identities.Put(identity, id);
    }
    return id;
}

}  // namespace Engine
