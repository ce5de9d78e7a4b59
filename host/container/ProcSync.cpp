// SPDX-License-Identifier: Apache-2.0
#include "host/container/ProcSync.h"

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>

#include "host/sdk/CgroupPath.h"

namespace Engine {

namespace {

// systemd as a container's first process puts itself there, and its services beside that.
void CutInitScope(std::string& path)
{
    constexpr std::string_view scope = "/init.scope";
    if (path.ends_with(scope)) {
        path.resize(path.size() - scope.size());
    }
}

using GroupMap = std::map<std::pair<int, std::string>, SDK::Cgroup>;  // by hierarchy and path

// The group, and all that it is below.
void EraseAbove(GroupMap& groups, const SDK::Cgroup& group)
{
    for (std::string path = group.path; !path.empty(); path.resize(std::min(path.rfind('/'), path.size() - 1))) {
        groups.erase({group.hierarchy, path});
    }
}

}  // namespace

ProcSync::Entry ProcSync::MakeEntry(const Seen& seen, Nanoseconds since, Nanoseconds now)
{
    Entry entry;
    entry.state = seen.found.state;
    entry.container = ContainerTable::Shared(seen.found.container);
    entry.since = since;
    entry.seen = now;
    entry.parent = seen.found.parent;
    entry.identity = seen.identity;
    if (entry.state == State::Entering && entry.identity == 0) {
        Believe(seen.tid, now);
    }
    return entry;
}

void ProcSync::UpdateAll(Nanoseconds since, Nanoseconds now, SyscallFilter* filter)
{
    const std::vector<Seen> all = LookAtAll(filter);
    for (const Seen& seen : all) {
        Merge(seen, since, now);
    }
    MarkMissing(all, now);
}

std::optional<ProcSync::Entry> ProcSync::Load(int tid, ProcessIdentity identity, Nanoseconds since, Nanoseconds now)
{
    std::optional<Found> found = RuntimeSetUp::Look(system, groups, tid);
    if (!found && identities.Find(identity.number) == nullptr) {
        return std::nullopt;
    }
    if (!found) {
        found.emplace();
    }
    Adopt(*found);
    Identify(*found, identity);
    return MakeEntry({tid, *found, identity.number}, since, now);
}

void ProcSync::AdoptGroups()
{
    GroupMap found;                      // outer ones before those below them
    std::map<std::string, int> makerOf;  // by the path of a group
    std::unordered_set<int> makers;
    for (const int pid : system.Processes()) {
        const std::optional<int> maker = RuntimeSetUp::MakerOf(system, pid);
        if (!maker) {
            continue;
        }
        makers.insert(*maker);
        for (SDK::Cgroup& group : system.Cgroups(pid).value_or(std::vector<SDK::Cgroup>{})) {
            CutInitScope(group.path);
            if (group.path.size() > 1 && groups.Find(group).empty()) {
                makerOf.try_emplace(group.path, *maker);
                found.try_emplace({group.hierarchy, group.path}, group);
            }
        }
    }
    if (found.empty()) {
        return;
    }
    for (const int pid : system.Processes()) {
        if (makers.contains(pid) || RuntimeSetUp::IsVisitor(system, pid)) {
            for (const SDK::Cgroup& group : system.Cgroups(pid).value_or(std::vector<SDK::Cgroup>{})) {
                EraseAbove(found, group);
            }
        }
    }
    for (const auto& [key, group] : found) {
        groups.Adopt(group, RuntimeSetUp::IdGivenTo(system, makerOf.at(group.path)));
    }
}

std::vector<ProcSync::Seen> ProcSync::LookAtAll(SyscallFilter* filter)
{
    std::vector<Seen> all;
    NumberMap given;
    RuntimeSetUp::ContainersSeen containers;
    for (const int pid : system.Processes()) {
        std::optional<Found> found = RuntimeSetUp::Look(system, groups, pid, &containers);
        if (!found) {
            continue;
        }
        const bool isAsked = filter != nullptr && !filter->IsExcluded(pid);
        const std::uint32_t identity = isAsked ? Identified(pid, *found, *filter, given) : 0;
        all.push_back({pid, *found, identity});
        for (const int tid : system.Threads(pid)) {
            if (tid != pid) {
                all.push_back({tid, Found{found->state, found->container, pid}, identity});
            }
        }
    }
    return all;
}

// The number that the process has, or is given when it is older than the agent: one serves all of a container.
std::uint32_t ProcSync::Identified(int pid, Found& found, SyscallFilter& filter, NumberMap& given)
{
    const ProcessIdentity identity = filter.IdentityOf(pid);
    Identify(found, identity);
    if (identity.number != 0) {
        filter.FollowExit(pid);
    }
    if (identity.number != 0 || found.state != State::Inside) {
        return identity.number;
    }
    std::uint32_t& number = given[found.container];
    number = filter.GiveIdentity(pid, number);
    if (number != 0 && identities.Find(number) == nullptr) {
        identities.Put(number, ContainerTable::Shared(found.container));
    }
    return number;
}

void ProcSync::Merge(Seen seen, Nanoseconds since, Nanoseconds now)
{
    Found& found = seen.found;
    Adopt(found);
    const Entry* known = table.Find(seen.tid);
    if (known == nullptr) {
        table.PutIfRoom(seen.tid, MakeEntry(seen, since, now));
        return;
    }
    // Otherwise the id is another process's by now, and neither that one's exit nor this one's fork was told.
    const bool isSame = known->identity == seen.identity ||
                        ((known->identity == 0 || seen.identity == 0) && !HasBegunAfter(seen.tid, *known));
    if (isSame && seen.identity != 0) {
        table.Update(seen.tid, [&](Entry& entry) { entry.identity = seen.identity; });
    }
    // The events knew better: a process that was Inside stays there, one that /proc shows as the runtime still is it,
    // and a dead process that is still listed is a zombie.
    if (isSame && ContainerTable::Same(known->container, found.container) &&
        (known->state != State::Entering || found.state == State::Entering)) {
        return;
    }
    // Whatever groups it is in now: it may have moved itself, and have made us lose events on purpose.
    if (isSame && known->IsInside() && IsSince(seen.tid, *known)) {
        return;
    }
    Entry made = MakeEntry(seen, since, now);
    table.Update(seen.tid, [&](Entry& entry) {
        entry.exit = ContainerTable::alive;
        entry.executable = nullptr;
        entry.seen = now;
        entry.parent = found.parent;
        entry.identity = seen.identity;
        entry.MoveTo(made.state, std::move(made.container), since);
    });
}

void ProcSync::MarkMissing(const std::vector<Seen>& all, Nanoseconds when)
{
    std::unordered_set<int> present;
    present.reserve(all.size());
    for (const Seen& seen : all) {
        present.insert(seen.tid);
    }
    std::vector<int> missing;
    for (const auto& [tid, entry] : table.Entries()) {
        if (entry.IsAlive() && present.count(tid) == 0) {
            missing.push_back(tid);
        }
    }
    for (const int tid : missing) {
        table.MarkExit(tid, when);
    }
}

bool ProcSync::HasBegunAfter(int tid, const Entry& entry) const
{
    const std::optional<Nanoseconds> start = system.StartTime(tid);
    return start && *start > entry.seen;
}

bool ProcSync::IsSince(int tid, const Entry& entry) const
{
    const std::optional<Nanoseconds> start = system.StartTime(tid);
    return start && *start <= entry.seen;
}

// Outside of every container by its groups, but a child of a process that is known to be Inside: its parent has left
// its groups, as a container that can write to them may, and the fork was lost.
void ProcSync::Adopt(Found& found) const
{
    const Entry* parent = found.container.empty() ? table.Find(found.parent) : nullptr;
    if (parent != nullptr && parent->IsInside() && IsSince(found.parent, *parent)) {
        found.state = State::Inside;
        found.container = *parent->container;
    }
}

// Those that are below the fewest others first: they have the better right to their ids.
void ProcSync::ClaimGroups()
{
    std::vector<std::pair<std::size_t, SDK::Cgroup>> found;
    for (const int pid : system.Processes()) {
        for (SDK::Cgroup& group : system.Cgroups(pid).value_or(std::vector<SDK::Cgroup>{})) {
            if (const std::size_t depth = SDK::CgroupPath::ContainerParts(group.path).size(); depth != 0) {
                found.emplace_back(depth, std::move(group));
            }
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [depth, group] : found) {
        groups.Claim(group);
    }
}

// What was lost, and where it has moved itself, does not matter then.
void ProcSync::Identify(Found& found, ProcessIdentity identity) const
{
    if (const Text known = identities.Find(identity.number); known != nullptr) {
        found.container = *known;
    }
    if (identity.number != 0 && !found.container.empty()) {
        found.state = identity.isInSetUp ? State::Entering : State::Inside;
    }
}

std::vector<int> ProcSync::PromoteOverdue(Nanoseconds now)
{
    std::vector<int> promoted;
    for (const auto& [tid, until] : provisional) {
        const Entry* entry = table.Find(tid);
        // The kernel knows what has an identity.
        const bool isGuess = entry != nullptr && entry->identity == 0;
        if (until <= now && isGuess && entry->state == State::Entering && entry->IsAlive()) {
            table.Update(tid, [now](Entry& overdue) { overdue.MoveTo(State::Inside, overdue.container, now); });
            promoted.push_back(tid);
        }
    }
    std::erase_if(provisional, [now](const auto& item) { return item.second <= now; });
    return promoted;
}

}  // namespace Engine
