// SPDX-License-Identifier: Apache-2.0
// Which container a thread belongs to, from fork, exec, exit and cgroup events applied in event order.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/container/ProcReader.h"
#include "host/sdk/SystemView.h"

namespace Engine {

// Keyed by thread id, because the events are: pid, parent_pid, child_pid and common_pid are ids of threads. Identity is
// the control group, never the namespaces: those change exactly when a process escapes.
//
// Ownership: `reader` is not owned and outlives the registry.
// Thread:    ContainerOf from any; everything else from one thread, the one that sees the events. That thread writes
//            under the mutex and reads without it.
// Errors:    a thread that cannot be found anywhere counts as one of the host. Throws nothing but std::bad_alloc.
// Times:     nanoseconds on the trace clock, CLOCK_MONOTONIC.
class ContainerRegistry : public SDK::ContainerResolver {
public:
    using Nanoseconds = std::chrono::nanoseconds;
    using Text = std::shared_ptr<const std::string>;

    // Entries of the host are no longer kept above this number (each is then looked up in /proc when it is asked for).
    static constexpr std::size_t maxHostEntries = 100000;
    // How long the dead still answer: what is asked about them lags behind the events.
    static constexpr Nanoseconds keepDead = std::chrono::seconds{5};
    // How long a process that /proc alone shows as a runtime's set-up is believed to be one.
    static constexpr Nanoseconds believeSetUp = std::chrono::seconds{2};
    static constexpr Nanoseconds longAgo = Nanoseconds::min();
    static constexpr Nanoseconds alive = Nanoseconds::max();

    // Entering: in the container's control group, but still the runtime that sets the container up. To everybody
    // outside of the registry this is a process of the host.
    enum class State : unsigned char { Host, Entering, Inside };

    struct Entry {
        State state = State::Host;
        bool inSetUp = false;         // of the host: runs a runtime that re-executed itself, or is a child of one
        bool bornInSetUp = false;     // its parent was one, so it is what a runtime made for the container's program
        bool hasForked = false;       // Inside, and has forked there or was forked there
        Text container;               // null for the host
        Nanoseconds since = longAgo;  // when the answer of ContainerOf last changed
        Text before;                  // that answer until then, null for none
        Nanoseconds seen = longAgo;   // it is known to have started by then
        int parent = -1;              // the thread that forked it
        Nanoseconds exit = alive;
        Text executable;  // as its last exec named it; null when that was not seen
    };

    explicit ContainerRegistry(ProcReader& reader);

    // sched:sched_process_fork. The child inherits everything and replaces whoever had its id before. `birthGroup` is
    // asked, about a child of the host's, for the control group it was made in (SyscallFilter::TakeBirthGroup): what a
    // runtime makes in a container's group may be gone, with the program that it executed, when /proc is read.
    using BirthGroup = std::function<std::optional<std::uint64_t>(int child)>;
    void ApplyFork(
        int parent, int child, Nanoseconds when, const BirthGroup& birthGroup = [](int) { return std::nullopt; });

    // cgroup:cgroup_attach_task. `mover`: who wrote the id into the group (common_pid). Comes once for each hierarchy,
    // and for a whole process names the leader only (cgroup_attach_task() in kernel/cgroup/cgroup.c). What a container
    // moves by itself changes nothing: it must not be able to leave its identity.
    void ApplyAttach(int mover, int pid, std::string_view path, Nanoseconds when);

    // sched:sched_process_exec. A thread other than the leader that execs takes over the leader's pid, and `oldPid` is
    // the id it had (de_thread() in fs/exec.c); that id's entry goes. True when the process is Inside from now on and
    // was not before; `beforeEntry` is then called with the container's id before anybody can see the process in it.
    // `isInItsGroups`: it is known that the process, if it is the host's, has come into no container's control group.
    using BeforeEntry = std::function<void(const std::string& container)>;
    bool ApplyExec(
        int pid, int oldPid, std::string_view filename, Nanoseconds when, bool isInItsGroups = false,
        const BeforeEntry& beforeEntry = [](const std::string&) {});

    // sched:sched_process_exit. An exit that comes before its fork is remembered for it.
    void ApplyExit(int pid, Nanoseconds when);

    // Null for a thread that the events have not shown yet; does not look into /proc. The dead are found, too, for a
    // while. Good until the next non-const call.
    const Entry* Find(int tid) const;

    // The same, with what /proc says for a thread that is not known yet. Null when that has gone.
    const Entry* FindOrLoad(int tid, Nanoseconds when);

    bool IsInside(int tid) const;

    // Whether a container has a live process beside `tid` in it. Looks at every entry.
    bool HasOther(const std::string& container, int tid) const;

    // Makes the registry agree with /proc. `since`: as of when what differs holds; longAgo at the start.
    void Resync(Nanoseconds since, Nanoseconds now);

    // Drops who has been dead long enough.
    void Purge(Nanoseconds now);

    // Set-up processes that were only believed to be some, for too long by now: they are Inside, and returned.
    std::vector<int> PromoteOverdue(Nanoseconds now);

    // As ProcessUtils::GetContainerID: while a trace event is delivered on the calling thread, as of its time. Any
    // thread.
    int ContainerOf(int pid, std::string& id) override;
    bool MayBeEntering(int pid) override;

    // The processes Inside that somebody has asked about beside a trace event since the last call: something else than
    // a system call has shown them to be active.
    std::unordered_set<int> TakeAsked();

    // `wake` is called, on the asking thread, when TakeAsked has something again. Set once, before anybody asks.
    void SetWake(std::function<void()> wake) { onAsked = std::move(wake); }

    // Whether Resync has run. Any thread.
    bool IsSynced() const { return synced.load(std::memory_order_relaxed); }

    std::size_t Size() const { return entries.size(); }

private:
    struct Found {
        State state = State::Host;
        std::string container;
        int parent = -1;
    };
    using FoundList = std::vector<std::pair<int, Found>>;

    std::optional<Found> Look(int tid) const;
    FoundList LookAtAll() const;
    Entry Made(int tid, const Found& found, Nanoseconds since, Nanoseconds now);
    void Merge(int tid, Found found, Nanoseconds since, Nanoseconds now);
    bool IsSince(int tid, const Entry& entry) const;
    void Adopt(Found& found) const;
    void MarkMissing(const FoundList& found, Nanoseconds when);
    Entry& LoadMoved(int pid, Nanoseconds when);
    Entry* Load(int tid, Nanoseconds when);
    Entry ChildOf(int parent, int child, Nanoseconds when, const BirthGroup& birthGroup);
    void MoveOthers(int leader, const Entry& like, Nanoseconds when);
    bool IsStillSetUp(int pid, const Entry& entry, bool isSelfExecution) const;
    static const Text& Visible(const Entry& entry);
    static const Text& VisibleAt(const Entry& entry, std::optional<Nanoseconds> when);
    static void Change(Entry& entry, State state, Text container, Nanoseconds when);
    void Store(int tid, Entry entry);
    void SetExit(int tid, Entry& entry, Nanoseconds when);
    bool NoteAsked(int pid, const Entry& entry);

    ProcReader& reader;
    std::mutex mutex;  // held for each write to `entries`, and for each read by other threads
    std::unordered_map<int, Entry> entries;
    std::deque<std::pair<int, Nanoseconds>> dead;          // in the order of their exits
    std::vector<std::pair<int, Nanoseconds>> provisional;  // who is believed to be in set-up, and until when
    std::unordered_set<int> asked;                         // guarded by the mutex
    std::function<void()> onAsked = [] {
    };
    std::atomic<bool> synced{false};
};

}  // namespace Engine
