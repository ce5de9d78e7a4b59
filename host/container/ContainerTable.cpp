// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerTable.h"

namespace Engine {

void ContainerTable::Entry::MoveTo(State next, Text nextContainer, Nanoseconds when)
{
    const Text told = Visible();
    state = next;
    container = std::move(nextContainer);
    if (told != Visible()) {
        before = told;
        since = when;
    }
}

const ContainerTable::Entry* ContainerTable::Find(int tid) const
{
    const auto found = entries.find(tid);
    return found == entries.end() ? nullptr : &found->second;
}

void ContainerTable::Put(int tid, Entry entry)
{
    const std::lock_guard lock{mutex};
    entries.insert_or_assign(tid, std::move(entry));
}

void ContainerTable::PutIfRoom(int tid, Entry entry)
{
    if (entry.state == State::Host && entries.size() >= maxHostEntries) {
        Erase(tid);
    } else {
        Put(tid, std::move(entry));
    }
}

void ContainerTable::Erase(int tid)
{
    const std::lock_guard lock{mutex};
    entries.erase(tid);
}

void ContainerTable::MarkExit(int tid, Nanoseconds when)
{
    const std::lock_guard lock{mutex};
    entries[tid].exit = when;
    dead.emplace_back(tid, when);
}

void ContainerTable::Purge(Nanoseconds now)
{
    if (dead.empty() || now - dead.front().second <= keepDead) {
        return;
    }
    const std::lock_guard lock{mutex};
    while (!dead.empty() && now - dead.front().second > keepDead) {
        const auto [tid, when] = dead.front();
        dead.pop_front();
        // Another thread may have the id by now.
        if (const auto found = entries.find(tid); found != entries.end() && found->second.exit == when) {
            entries.erase(found);
        }
    }
}

std::optional<ContainerTable::Text> ContainerTable::ContainerAt(int tid, std::optional<Nanoseconds> when,
                                                                bool isHostNow) const
{
    const std::lock_guard lock{mutex};
    const Entry* entry = Find(tid);
    if (entry == nullptr) {
        return std::nullopt;
    }
    if (isHostNow && !entry->IsAlive() && (!when || *when > entry->exit)) {
        return Text{};
    }
    return !when || *when >= entry->since ? entry->Visible() : entry->before;
}

std::size_t ContainerTable::Size() const
{
    const std::lock_guard lock{mutex};
    return entries.size();
}

bool ContainerTable::MayBeEntering(int tid) const
{
    const std::lock_guard lock{mutex};
    const Entry* entry = Find(tid);
    return entry != nullptr && (entry->state == State::Entering || (entry->state == State::Host && entry->inSetUp));
}

std::optional<SDK::ContainerResolver::Kept> ContainerTable::FindKept(int tid, std::optional<Nanoseconds> when) const
{
    const std::lock_guard lock{mutex};
    const Entry* entry = Find(tid);
    if (entry == nullptr || (when && *when < entry->seen)) {
        return std::nullopt;
    }
    return SDK::ContainerResolver::Kept{entry->seen, entry->parent, !entry->IsAlive(), entry->executed};
}

}  // namespace Engine
