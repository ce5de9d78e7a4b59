// SPDX-License-Identifier: Apache-2.0
// The part of the container registry that learns from /proc instead of from events.
#include <unordered_set>

#include "host/container/ContainerRegistry.h"

namespace Engine {

// A thread in a container's group is the runtime still when it runs a copy of the runtime and nobody of the container
// is its parent. A container can forge the first, not the second, except for the process that the runtime itself starts
// in it: therefore this is believed for a short time only (see Made), and never once the process has been Inside.
std::optional<ContainerRegistry::Found> ContainerRegistry::Look(int tid) const
{
    std::optional<std::string> container = reader.ContainerOf(tid);
    if (!container) {
        return std::nullopt;
    }
    Found found{State::Host, std::move(*container), reader.ParentOf(tid)};
    if (!found.container.empty()) {
        const bool parentIsInside = !reader.ContainerOf(found.parent).value_or(found.container).empty();
        const bool isRuntime = !parentIsInside && reader.RunsCopyOfParent(tid);
        found.state = isRuntime ? State::Entering : State::Inside;
    }
    return found;
}

ContainerRegistry::FoundList ContainerRegistry::LookAtAll() const
{
    FoundList all;
    for (const int pid : reader.Processes()) {
        const std::optional<Found> found = Look(pid);
        if (!found) {
            continue;
        }
        all.emplace_back(pid, *found);
        for (const int tid : reader.Threads(pid)) {
            if (tid != pid) {
                all.emplace_back(tid, Found{found->state, found->container, pid});
            }
        }
    }
    return all;
}

ContainerRegistry::Entry ContainerRegistry::Made(int tid, const Found& found, Nanoseconds since, Nanoseconds now)
{
    Entry entry;
    entry.state = found.state;
    if (!found.container.empty()) {
        entry.container = std::make_shared<const std::string>(found.container);
    }
    entry.since = since;
    entry.seen = now;
    entry.parent = found.parent;
    if (found.state == State::Entering) {
        provisional.emplace_back(tid, now + believeSetUp);
    }
    return entry;
}

ContainerRegistry::Entry* ContainerRegistry::Load(int tid, Nanoseconds when)
{
    if (const auto known = entries.find(tid); known != entries.end()) {
        return &known->second;
    }
    std::optional<Found> found = Look(tid);
    if (!found) {
        return nullptr;
    }
    Adopt(*found);
    Entry made = Made(tid, *found, longAgo, when);
    const std::lock_guard lock{mutex};
    return &entries.insert_or_assign(tid, std::move(made)).first->second;
}

// A thread whose fork was lost and that is moved into a container now. It has just been outside, so /proc, which may
// show it inside already, is not asked; but it must not count as the runtime for ever if it never execs.
ContainerRegistry::Entry& ContainerRegistry::LoadMoved(int pid, Nanoseconds when)
{
    if (const auto known = entries.find(pid); known != entries.end()) {
        return known->second;
    }
    Entry made;
    made.parent = reader.ParentOf(pid);
    provisional.emplace_back(pid, when + believeSetUp);
    const std::lock_guard lock{mutex};
    return entries.insert_or_assign(pid, std::move(made)).first->second;
}

void ContainerRegistry::Resync(Nanoseconds since, Nanoseconds now)
{
    const FoundList all = LookAtAll();
    for (const auto& [tid, found] : all) {
        Merge(tid, found, since, now);
    }
    MarkMissing(all, now);
    synced.store(true, std::memory_order_relaxed);
}

// Whether the thread of that id is still the one that the entry is about.
bool ContainerRegistry::IsSince(int tid, const Entry& entry) const
{
    const std::optional<Nanoseconds> start = reader.StartOf(tid);
    return start && *start <= entry.seen;
}

// Outside of every container by its groups, but a child of one who is known to be Inside: its parent has left its
// groups, as a container that can write to them may, and the fork was lost.
void ContainerRegistry::Adopt(Found& found) const
{
    const Entry* parent = found.container.empty() ? Find(found.parent) : nullptr;
    if (parent != nullptr && parent->state == State::Inside && IsSince(found.parent, *parent)) {
        found.state = State::Inside;
        found.container = *parent->container;
    }
}

void ContainerRegistry::Merge(int tid, Found found, Nanoseconds since, Nanoseconds now)
{
    Adopt(found);
    const auto known = entries.find(tid);
    if (known == entries.end()) {
        Store(tid, Made(tid, found, since, now));
        return;
    }
    Entry& entry = known->second;
    const bool sameContainer = (entry.container == nullptr ? std::string{} : *entry.container) == found.container;
    // The events knew better: who was Inside stays there, whom /proc shows as the runtime still is it, and a dead
    // process that is still listed is one that nobody has waited for yet.
    if (sameContainer && (entry.state != State::Entering || found.state == State::Entering)) {
        return;
    }
    // Whatever groups it is in now: it may have moved itself, and have made us lose events on purpose.
    if (entry.state == State::Inside && IsSince(tid, entry)) {
        return;
    }
    Entry made = Made(tid, found, since, now);
    const std::lock_guard lock{mutex};
    entry.exit = alive;
    entry.executable = nullptr;
    entry.seen = now;
    entry.parent = found.parent;
    Change(entry, made.state, std::move(made.container), since);
}

void ContainerRegistry::MarkMissing(const FoundList& found, Nanoseconds when)
{
    std::unordered_set<int> present;
    present.reserve(found.size());
    for (const auto& item : found) {
        present.insert(item.first);
    }
    const std::lock_guard lock{mutex};
    for (auto& [tid, entry] : entries) {
        if (entry.exit == alive && present.count(tid) == 0) {
            SetExit(tid, entry, when);
        }
    }
}

}  // namespace Engine
