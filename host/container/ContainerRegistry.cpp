// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerRegistry.h"

#include <algorithm>

#include "host/container/RuntimeProgram.h"
#include "host/sdk/CgroupPath.h"
#include "host/sdk/TraceTime.h"

namespace Engine {

namespace {

const ContainerRegistry::Text nothing;

bool Same(const ContainerRegistry::Text& text, std::string_view other)
{
    return (text == nullptr ? std::string_view{} : std::string_view{*text}) == other;
}

ContainerRegistry::Text Shared(std::string_view text)
{
    return text.empty() ? nullptr : std::make_shared<const std::string>(text);
}

}  // namespace

ContainerRegistry::ContainerRegistry(ProcReader& reader) : reader(reader)
{
}

void ContainerRegistry::ApplyFork(int parent, int child, Nanoseconds when, const BirthGroup& birthGroup)
{
    Entry made = ChildOf(parent, child, when, birthGroup);
    if (const Entry* old = Find(child); old != nullptr) {
        made.before = Visible(*old);
        made.exit = old->exit != alive && old->exit >= when ? old->exit : alive;
    }
    made.since = when;
    made.hasForked = IsInside(parent);
    Store(child, std::move(made));
    if (const auto from = entries.find(parent); IsInside(parent) && !from->second.hasForked) {
        const std::lock_guard lock{mutex};
        from->second.hasForked = true;
    }
}

void ContainerRegistry::ApplyAttach(int mover, int pid, std::string_view path, Nanoseconds when)
{
    if (const Entry* by = FindOrLoad(mover, when); by != nullptr && by->state == State::Inside) {
        return;
    }
    const std::string_view id = SDK::CgroupPath::ContainerId(path);
    Entry* entry = id.empty() ? Load(pid, when) : &LoadMoved(pid, when);
    if (entry == nullptr || Same(entry->container, id)) {
        return;
    }
    // It may have left the container's group in one hierarchy and be in it still in the others.
    if (id.empty() && !reader.ContainerOf(pid).value_or(*entry->container).empty()) {
        return;
    }
    const bool wasInside = entry->state == State::Inside;
    const State now = id.empty() ? State::Host : wasInside ? State::Inside : State::Entering;
    {
        const std::lock_guard lock{mutex};
        Change(*entry, now, Shared(id), when);
    }
    if (wasInside) {
        MoveOthers(pid, *entry, when);
    }
}

bool ContainerRegistry::ApplyExec(int pid, int oldPid, std::string_view filename, Nanoseconds when, bool isInItsGroups,
                                  const BeforeEntry& beforeEntry)
{
    if (oldPid != pid) {
        const std::lock_guard lock{mutex};
        entries.erase(oldPid);
    }
    const bool wasKnown = Find(pid) != nullptr;
    Entry* entry = Load(pid, when);
    if (entry == nullptr) {
        return false;
    }
    const bool wasInside = wasKnown && entry->state == State::Inside;
    const bool isSelfExecution = IsSelfExecution(filename);
    State next = entry->state;
    Text container = entry->container;
    if (next == State::Host && !isInItsGroups) {
        // Newer runtimes create the child inside the group (clone3(2), CLONE_INTO_CGROUP): no attach event told us.
        container = Shared(reader.ContainerOf(pid).value_or(std::string{}));
    }
    if (next != State::Inside && container != nullptr) {
        next = IsStillSetUp(pid, *entry, isSelfExecution) ? State::Entering : State::Inside;
    }
    const bool enters = next == State::Inside && !wasInside;
    if (enters) {
        beforeEntry(*container);
    }
    const Text executable = next == State::Host ? nullptr : Shared(filename);
    const std::lock_guard lock{mutex};
    entry->exit = alive;  // the leader may have ended before the thread that takes over its id
    entry->inSetUp = isSelfExecution;
    entry->executable = executable;
    if (next != entry->state) {
        Change(*entry, next, std::move(container), when);
    }
    return enters;
}

void ContainerRegistry::ApplyExit(int pid, Nanoseconds when)
{
    const std::lock_guard lock{mutex};
    SetExit(pid, entries[pid], when);
}

const ContainerRegistry::Entry* ContainerRegistry::Find(int tid) const
{
    const auto found = entries.find(tid);
    return found == entries.end() ? nullptr : &found->second;
}

const ContainerRegistry::Entry* ContainerRegistry::FindOrLoad(int tid, Nanoseconds when)
{
    return Load(tid, when);
}

bool ContainerRegistry::IsInside(int tid) const
{
    const Entry* entry = Find(tid);
    return entry != nullptr && entry->state == State::Inside;
}

bool ContainerRegistry::HasOther(const std::string& container, int tid) const
{
    return std::any_of(entries.begin(), entries.end(), [&](const auto& item) {
        const Entry& entry = item.second;
        return item.first != tid && entry.state == State::Inside && entry.exit == alive &&
               Same(entry.container, container);
    });
}

void ContainerRegistry::Purge(Nanoseconds now)
{
    if (dead.empty() || now - dead.front().second <= keepDead) {
        return;
    }
    const std::lock_guard lock{mutex};
    while (!dead.empty() && now - dead.front().second > keepDead) {
        const auto [tid, when] = dead.front();
        dead.pop_front();
        // Its id may have gone to another thread since.
        if (const auto found = entries.find(tid); found != entries.end() && found->second.exit == when) {
            entries.erase(found);
        }
    }
}

std::vector<int> ContainerRegistry::PromoteOverdue(Nanoseconds now)
{
    std::vector<int> promoted;
    for (const auto& [tid, until] : provisional) {
        const auto found = entries.find(tid);
        if (until > now || found == entries.end() || found->second.state != State::Entering ||
            found->second.exit != alive) {
            continue;
        }
        const std::lock_guard lock{mutex};
        Change(found->second, State::Inside, found->second.container, now);
        promoted.push_back(tid);
    }
    std::erase_if(provisional, [now](const auto& item) { return item.second <= now; });
    return promoted;
}

int ContainerRegistry::ContainerOf(int pid, std::string& id)
{
    const std::optional<Nanoseconds> when = SDK::TraceTime::Current();
    std::unique_lock lock{mutex};
    if (const Entry* entry = Find(pid); entry != nullptr) {
        const Text container = VisibleAt(*entry, when);
        const bool mustWake = !when && NoteAsked(pid, *entry);
        lock.unlock();
        id = container == nullptr ? std::string{} : *container;
        if (mustWake) {
            onAsked();
        }
        return 0;
    }
    lock.unlock();
    const std::optional<Found> found = Look(pid);
    if (!found) {
        return -1;
    }
    id = found->state == State::Inside ? found->container : std::string{};
    return 0;
}

std::unordered_set<int> ContainerRegistry::TakeAsked()
{
    const std::lock_guard lock{mutex};
    return std::exchange(asked, {});
}

// Whether it is the first since TakeAsked. The mutex is held.
bool ContainerRegistry::NoteAsked(int pid, const Entry& entry)
{
    return entry.state == State::Inside && asked.insert(pid).second && asked.size() == 1;
}

bool ContainerRegistry::MayBeEntering(int pid)
{
    const std::lock_guard lock{mutex};
    const Entry* entry = Find(pid);
    return entry != nullptr && (entry->state == State::Entering || (entry->state == State::Host && entry->inSetUp));
}

ContainerRegistry::Entry ContainerRegistry::ChildOf(int parent, int child, Nanoseconds when,
                                                    const BirthGroup& birthGroup)
{
    Entry made;
    const Entry* from = Load(parent, when);
    if (from != nullptr) {
        made.state = from->state;
        made.inSetUp = from->inSetUp;
        made.bornInSetUp = from->inSetUp;
        made.container = from->container;
        made.executable = from->executable;
    }
    const bool isOfHost = from != nullptr && from->state == State::Host;
    if (const auto group = isOfHost ? birthGroup(child) : std::nullopt; group) {
        made.container = Shared(reader.ContainerOfGroup(*group));
        made.state = made.container == nullptr ? State::Host : State::Entering;
    }
    // A runtime creates its child inside the container's group, or the parent has gone before it was ever seen.
    if (from == nullptr || (made.state == State::Host && made.inSetUp)) {
        if (const std::optional<Found> found = Look(child); found && found->state != State::Host) {
            made.state = from == nullptr ? found->state : State::Entering;
            made.container = Shared(found->container);
        }
    }
    made.seen = when;
    made.parent = parent;
    return made;
}

// The event named the leader only; /proc tells which of the other threads went with it.
void ContainerRegistry::MoveOthers(int leader, const Entry& like, Nanoseconds when)
{
    const std::string target = like.container == nullptr ? std::string{} : *like.container;
    for (const int tid : reader.Threads(leader)) {
        const auto found = entries.find(tid);
        if (tid == leader || found == entries.end() || found->second.state != State::Inside ||
            reader.ContainerOf(tid) != target) {
            continue;
        }
        const std::lock_guard lock{mutex};
        Change(found->second, like.state, like.container, when);
    }
}

// The file name alone would let an image whose entry point is called /proc/self/exe pass for the runtime, so the
// process must also have the host's mount namespace still. One that has gone already cannot be asked. Runtimes do have
// helpers that live a millisecond, but they execute themselves before they fork, not in the child that becomes the
// container's program: that would be an attacker's entry point, who has no need to live longer.
bool ContainerRegistry::IsStillSetUp(int pid, const Entry& entry, bool isSelfExecution) const
{
    return isSelfExecution && reader.InHostMountNamespace(pid).value_or(!entry.bornInSetUp);
}

const ContainerRegistry::Text& ContainerRegistry::Visible(const Entry& entry)
{
    return entry.state == State::Inside ? entry.container : nothing;
}

const ContainerRegistry::Text& ContainerRegistry::VisibleAt(const Entry& entry, std::optional<Nanoseconds> when)
{
    return !when || *when >= entry.since ? Visible(entry) : entry.before;
}

void ContainerRegistry::Change(Entry& entry, State state, Text container, Nanoseconds when)
{
    const Text before = Visible(entry);
    entry.state = state;
    entry.container = std::move(container);
    if (before != Visible(entry)) {
        entry.before = before;
        entry.since = when;
    }
}

void ContainerRegistry::Store(int tid, Entry entry)
{
    const std::lock_guard lock{mutex};
    if (entry.state == State::Host && entries.size() >= maxHostEntries) {
        entries.erase(tid);
        return;
    }
    entries.insert_or_assign(tid, std::move(entry));
}

void ContainerRegistry::SetExit(int tid, Entry& entry, Nanoseconds when)
{
    entry.exit = when;
    dead.emplace_back(tid, when);
}

}  // namespace Engine
