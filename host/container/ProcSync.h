// SPDX-License-Identifier: Apache-2.0
// Makes the container table agree with /proc: as a whole, at the start and after a loss, or for one unknown thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/container/ContainerGroups.h"
#include "host/container/ContainerIdentities.h"
#include "host/container/ContainerTable.h"
#include "host/container/ProcListing.h"
#include "host/container/RuntimeSetUp.h"
#include "host/ftrace/SyscallFilter.h"
#include "host/sdk/SystemView.h"

namespace Engine {

// The events know better than /proc, which tells only where a process is by now: a container that can write to control
// groups moves its processes wherever it likes. An identity knows better than both.
//
// Ownership: nothing passed to the constructor is owned; all of it outlives this.
// Thread:    the registry's.
// Errors:    throws nothing but std::bad_alloc.
// Times:     nanoseconds on the trace clock, CLOCK_MONOTONIC.
class ProcSync {
public:
    using Nanoseconds = ContainerTable::Nanoseconds;
    using Entry = ContainerTable::Entry;

    // How long a process that /proc alone shows as a runtime's set-up is believed to be one. The kernel knows it of
    // those that have an identity, however long a busy machine takes.
    static constexpr Nanoseconds believeSetUp = std::chrono::seconds{2};

    ProcSync(ContainerTable& table, ContainerGroups& groups, ContainerIdentities& identities, SDK::SystemView& system)
        : table(table), groups(groups), identities(identities), system(system)
    {
    }

    // As of `since` holds what differs from the table. `isFirst`: before anything else is asked. It gives the container
    // groups that have processes to their containers, then those groups whose names say nothing and that a runtime has
    // put a container's processes into. `filter`: tells identities; null for none.
    void UpdateAll(Nanoseconds since, Nanoseconds now, bool isFirst, SyscallFilter* filter);

    // What is to be had of a thread that is not in the table. Nothing when it has gone and its identity tells nothing.
    std::optional<Entry> Load(int tid, ProcessIdentity identity, Nanoseconds since, Nanoseconds now);

    // A thread that is in set-up only by what /proc says, or as a guess.
    void Believe(int tid, Nanoseconds now) { provisional.emplace_back(tid, now + believeSetUp); }
    // Those that were believed to be in set-up for too long by now: they are Inside, and returned.
    std::vector<int> PromoteOverdue(Nanoseconds now);

    // Whether the thread of that id is still the one that the entry is about, by the time of its start. False when
    // /proc does not tell.
    bool IsSince(int tid, const Entry& entry) const;

private:
    using Text = ContainerTable::Text;
    using State = ContainerTable::State;
    using Found = RuntimeSetUp::Found;
    struct Seen {
        int tid;
        Nanoseconds started;
        Found found;
        std::uint32_t identity;
    };

    void ClaimGroups(const ProcListing& listing);
    // Not those that the host's own processes are in or below: a runtime may leave a container's process where it is
    // itself, and a container that can write to control groups may have moved into a group of the host's.
    void AdoptGroups(const ProcListing& listing);
    std::vector<Found> FindAll(const ProcListing& listing) const;
    std::vector<Seen> LookAtAll(ProcListing& listing, SyscallFilter* filter);
    void Give(ProcListing& listing, const std::vector<Found>& found, SyscallFilter& filter);
    void Merge(Seen seen, Nanoseconds since, Nanoseconds now);
    void MarkMissing(const std::vector<Seen>& all, Nanoseconds when);
    Entry MakeEntry(const Seen& seen, Nanoseconds since, Nanoseconds now);
    void Adopt(Found& found) const;
    void Identify(Found& found, ProcessIdentity identity) const;

    ContainerTable& table;
    ContainerGroups& groups;
    ContainerIdentities& identities;
    SDK::SystemView& system;
    std::vector<std::pair<int, Nanoseconds>> provisional;  // believed to be in set-up, and until when
};

}  // namespace Engine
