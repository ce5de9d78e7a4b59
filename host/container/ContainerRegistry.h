// SPDX-License-Identifier: Apache-2.0
// Keeps the container table in step with fork, exec, exit and cgroup events, applied in event order, and with /proc.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "host/container/ContainerGroups.h"
#include "host/container/ContainerIdentities.h"
#include "host/container/ContainerTable.h"
#include "host/container/ProcSync.h"
#include "host/ftrace/RecordStream.h"
#include "host/ftrace/SyscallFilter.h"
#include "host/sdk/SystemView.h"

namespace Engine {

// Identity is the control group, never the namespaces: those change exactly when a process escapes.
//
// Ownership: table, groups and system view are not owned and outlive the registry.
// Thread:    the one that sees the events; IsSynced from any.
// Errors:    a thread that cannot be found anywhere counts as one of the host. Throws nothing but std::bad_alloc.
// Times:     nanoseconds on the trace clock, CLOCK_MONOTONIC.
class ContainerRegistry {
public:
    using Nanoseconds = ContainerTable::Nanoseconds;
    using Text = ContainerTable::Text;
    using Entry = ContainerTable::Entry;
    using State = ContainerTable::State;

    // What is remembered of containers that have gone is looked at once in a period.
    static constexpr Nanoseconds prunePeriod = std::chrono::minutes{1};

    ContainerRegistry(ContainerTable& table, ContainerGroups& groups, SDK::SystemView& system)
        : table(table), groups(groups), system(system)
    {
    }

    // sched:sched_process_fork. The child inherits everything and replaces the thread that had its id before.
    // `source`: the parent's.
    void ApplyFork(int parent, int child, Nanoseconds when, const RecordSource& source = {});

    // cgroup:cgroup_attach_task. Comes once for each hierarchy, and for a whole process names the leader only
    // (cgroup_attach_task() in kernel/cgroup/cgroup.c). What a container moves by itself changes nothing: it must not
    // be able to leave its identity.
    struct Move {
        int mover = -1;       // the thread that wrote the id into the group (common_pid)
        RecordSource source;  // the mover's
        int pid = -1;         // the thread that was moved
        SDK::Cgroup group;
        // Where the kernel tells what became of a process before: all that is known of one that was not followed then.
        struct Past {
            int parent;            // process id
            std::string executed;  // as CeMoveEvent has it
            bool bornInSetUp;
        };
        std::optional<Past> past;
        std::uint32_t identity = 0;        // the number that it has from then on, as ProcessIdentity's; 0: as before
        std::uint32_t identityBefore = 0;  // and until then
    };
    // Returns whether a process was taken out of the container that it was Inside of.
    bool ApplyAttach(const Move& move, Nanoseconds when);

    // The id that a runtime was told for the container that it makes of the processes with this identity; empty when it
    // makes none, when it was told none, and where the group's name tells.
    std::string IdInSetUp(std::uint32_t identity) const { return identities.IdInSetUp(identity); }

    // sched:sched_process_exec, in two steps, so that the caller can do what must be done before others see the process
    // in its container.
    // Kernel: a thread other than the leader that execs takes over the leader's pid, and `oldPid` is the id that it had
    // (de_thread() in fs/exec.c); that id's entry goes.
    struct Exec {
        int pid = -1;
        State state = State::Host;
        Text container;
        bool isSelfExecution = false;
        bool enters = false;  // it is Inside from now on and was not before
        std::uint32_t identity = 0;
        std::shared_ptr<const SDK::ProcessDetails> executed = nullptr;  // null where that was not recorded
    };
    // `place`: as CePlace, 0 where the kernel does not tell. Nothing when the thread has gone.
    std::optional<Exec> DecideExec(int pid, int oldPid, std::string_view filename, Nanoseconds when,
                                   const RecordSource& source = {}, unsigned int place = 0);
    void ApplyExec(const Exec& exec, std::string_view filename, Nanoseconds when);

    // sched:sched_process_exit. An exit that comes before its fork is remembered for it.
    void ApplyExit(int pid, Nanoseconds when) { table.MarkExit(pid, when); }

    // Null for a thread that the events have not shown yet; does not look into /proc. The dead are found, too, for a
    // while. Good until the next non-const call.
    const Entry* Find(int tid) const { return table.Find(tid); }

    // The same, with what is to be had about a thread that is not known yet. It is what its process is; if that is not
    // known either, /proc tells, and its identity has the last word about its container. Null when nothing does.
    const Entry* FindOrLoad(int tid, Nanoseconds when, const RecordSource& source = {});

    // Whether what is recorded at `when` is by another thread than the entry is about, which had the id before: neither
    // its end nor the other's fork need be told.
    static bool IsAnother(const Entry& entry, Nanoseconds when, const RecordSource& source)
    {
        return entry.exit < when || (source.process != 0 && source.identity.number != entry.identity);
    }

    // A record tells whether its process was in set-up then. The entry may be ahead of it, made from /proc after a
    // loss, or behind, when an exec was lost. `entry`: the thread's, as FindOrLoad has it for that record; or null.
    void FollowSetUp(int tid, const Entry* entry, const RecordSource& source, Nanoseconds when);

    bool IsInside(int tid) const;

    // The container that its control groups belong to, empty for none. Nothing when the thread has gone.
    std::optional<std::string> ContainerByGroups(int tid) const;

    // Whether a container has a live process beside `tid` in it. Looks at every entry.
    bool HasOther(const std::string& container, int tid) const;

    // Makes the table agree with /proc and with the identities. `since`: as of when what differs holds; longAgo at the
    // start. `filter`: null for none.
    void Resync(Nanoseconds since, Nanoseconds now, SyscallFilter* filter = nullptr);

    // Forgets a process of the host with its threads: the kernel excludes it and will not tell of its end.
    void ForgetHost(int process);

    // Drops what has been dead for long enough, and once in a period what is remembered of containers by which no
    // process is left. Returns the ids of the others then; good until the next non-const call.
    using Ids = std::unordered_set<std::string_view>;
    std::optional<Ids> Purge(Nanoseconds now);

    // As ProcSync's.
    std::vector<int> PromoteOverdue(Nanoseconds now) { return proc.PromoteOverdue(now); }

    // Whether Resync has run. Any thread.
    bool IsSynced() const { return synced.load(std::memory_order_relaxed); }

private:
    Entry ChildOf(int parent, int child, Nanoseconds when, const RecordSource& source);
    const Entry* LoadMoved(const Move& move, Nanoseconds when);
    void MoveOthers(int leader, const Entry& like, Nanoseconds when);
    Ids PruneGone();
    void Relabel(const std::string& id, const std::string& next);
    bool IsSetUpByRuntime(int pid, const Entry& entry, unsigned int place) const;
    Text AdoptGroup(int pid, std::uint32_t identity);

    ContainerTable& table;
    ContainerGroups& groups;
    SDK::SystemView& system;
    ContainerIdentities identities;
    ProcSync proc{table, groups, identities, system};
    Nanoseconds nextPrune{0};
    std::atomic<bool> synced{false};
};

}  // namespace Engine
