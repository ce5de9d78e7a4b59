// SPDX-License-Identifier: Apache-2.0
#include "host/container/ProcSync.h"

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

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

void ProcSync::UpdateAll(Nanoseconds since, Nanoseconds now, bool isFirst, SyscallFilter* filter)
{
    ProcListing listing = ProcListing::Of(system, filter);
    if (isFirst) {
        ClaimGroups(listing);
        AdoptGroups(listing);
    }
    const std::vector<Seen> all = LookAtAll(listing, filter);
    for (const Seen& each : all) {
        Merge(each, since, now);
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
    return MakeEntry({tid, {}, *found, identity.number}, since, now);
}

void ProcSync::AdoptGroups(const ProcListing& listing)
{
    std::vector<std::vector<SDK::Cgroup>> unknown = listing.groups;
    for (std::vector<SDK::Cgroup>& of : unknown) {
        std::for_each(of.begin(), of.end(), [](SDK::Cgroup& group) { CutInitScope(group.path); });
        std::erase_if(of, [this](const auto& group) { return group.path.size() <= 1 || !groups.Find(group).empty(); });
    }
    GroupMap found;                      // outer ones before those below them
    std::map<std::string, int> makerOf;  // by the path of a group
    for (const ProcListing::Process& process : listing.processes) {
        const std::vector<SDK::Cgroup>& of = unknown[process.groups];
        const auto maker = of.empty() ? std::nullopt : RuntimeSetUp::MakerOf(system, process.pid);
        if (!maker) {
            continue;
        }
        for (const SDK::Cgroup& group : of) {
            makerOf.try_emplace(group.path, *maker);
            found.try_emplace({group.hierarchy, group.path}, group);
        }
    }
    if (found.empty()) {
        return;
    }
    std::unordered_set<int> makers;  // of all containers
    for (const ProcListing::Process& process : listing.processes) {
        if (const auto maker = RuntimeSetUp::MakerOf(system, process.pid)) {
            makers.insert(*maker);
        }
    }
    for (const ProcListing::Process& process : listing.processes) {
        if (makers.contains(process.pid) || RuntimeSetUp::IsVisitor(system, process.pid)) {
            for (const SDK::Cgroup& group : listing.groups[process.groups]) {
                EraseAbove(found, group);
            }
        }
    }
    for (const auto& [key, group] : found) {
        groups.Adopt(group, RuntimeSetUp::IdGivenTo(system, makerOf.at(group.path)));
    }
}

std::vector<ProcSync::Found> ProcSync::FindAll(const ProcListing& listing) const
{
    std::vector<std::string> containers;
    for (const std::vector<SDK::Cgroup>& of : listing.groups) {
        containers.push_back(groups.Find(of));
    }
    std::unordered_map<int, bool> isInside;
    for (const ProcListing::Process& process : listing.processes) {
        isInside.emplace(process.pid, !containers[process.groups].empty());
    }
    std::vector<Found> all;
    all.reserve(listing.processes.size());
    for (const ProcListing::Process& process : listing.processes) {
        Found found{State::Host, containers[process.groups], process.parent};
        if (!found.container.empty()) {
            const auto parent = isInside.find(process.parent);
            found.state =
                RuntimeSetUp::StateOf(system, process.pid, process.parent, parent == isInside.end() || parent->second);
        }
        all.push_back(std::move(found));
    }
    return all;
}

std::vector<ProcSync::Seen> ProcSync::LookAtAll(ProcListing& listing, SyscallFilter* filter)
{
    std::vector<Found> found = FindAll(listing);
    if (filter != nullptr) {
        Give(listing, found, *filter);
    }
    std::vector<Seen> all;
    all.reserve(found.size() + listing.threads.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        ProcListing::Process& process = listing.processes[i];
        if (filter != nullptr && filter->IsExcluded(process.pid)) {
            process.identity = {};
        }
        Identify(found[i], process.identity);
        all.push_back({process.pid, process.started, found[i], process.identity.number});
    }
    for (const ProcListing::Thread& thread : listing.threads) {
        const ProcListing::Process& process = listing.processes[thread.process];
        const Found& its = found[thread.process];
        all.push_back({thread.tid, thread.started, {its.state, its.container, process.pid}, process.identity.number});
    }
    return all;
}

// Processes that are older than the agent get an identity: one serves all of a container.
void ProcSync::Give(ProcListing& listing, const std::vector<Found>& found, SyscallFilter& filter)
{
    std::map<std::string_view, std::uint32_t> numbers;  // by container
    SyscallFilter::Given given;
    std::vector<std::uint64_t> inSetUp;
    for (std::size_t i = 0; i < found.size(); ++i) {
        const ProcListing::Process& process = listing.processes[i];
        if (found[i].container.empty() || process.identity.number != 0 || process.kernelGroups == 0) {
            continue;
        }
        if (found[i].state != State::Inside) {
            given.except.push_back(process.pid);
            inSetUp.push_back(process.kernelGroups);
            continue;
        }
        const auto [number, isNew] = numbers.try_emplace(found[i].container);
        if (isNew) {
            number->second = filter.NewIdentity();
            identities.Put(number->second, ContainerTable::Shared(found[i].container));
        }
        given.numbers.emplace(process.kernelGroups, number->second);
    }
    // Programs of containers may look like a runtime: if so many do, only their own control groups go without.
    if (given.except.size() > SyscallFilter::mostExcept) {
        std::for_each(inSetUp.begin(), inSetUp.end(), [&](std::uint64_t number) { given.numbers.erase(number); });
        given.except.clear();
    }
    if (given.numbers.empty()) {
        return;
    }
    std::unordered_map<int, SyscallFilter::Listed> now;
    for (const SyscallFilter::Listed& each : filter.List(given)) {
        if (each.thread == each.process) {
            now.emplace(each.process, each);
        }
    }
    for (ProcListing::Process& process : listing.processes) {
        if (const auto its = now.find(process.pid); its != now.end() && its->second.started == process.started) {
            process.identity = its->second.identity;
        }
    }
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
                        ((known->identity == 0 || seen.identity == 0) && seen.started <= known->seen);
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
    if (isSame && known->IsInside() && seen.started <= known->seen) {
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

bool ProcSync::IsSince(int tid, const Entry& entry) const
{
    const auto stat = system.StatOf(tid);
    return stat && stat->started <= entry.seen;
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
void ProcSync::ClaimGroups(const ProcListing& listing)
{
    std::vector<std::pair<std::size_t, SDK::Cgroup>> found;
    for (const std::vector<SDK::Cgroup>& of : listing.groups) {
        for (const SDK::Cgroup& group : of) {
            if (const std::size_t depth = SDK::CgroupPath::ContainerParts(group.path).size(); depth != 0) {
                found.emplace_back(depth, group);
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
