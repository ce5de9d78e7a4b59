// SPDX-License-Identifier: Apache-2.0
// Which processes the kernel excludes: it records neither their system calls nor their lives.
#pragma once

#include <cstdint>
#include <optional>

#include "host/ftrace/ProcessIdentity.h"

namespace Engine {

// Where the kernel itself excludes the processes of the host, it starts with all processes included, and includes again
// each process that comes into other control groups, with all that it forks. To exclude one is the agent's decision:
// first ask for a ticket, then find out what the process is, then hand in the ticket, which is void when the process
// was moved meanwhile.
// Thread: one at a time, IsExcluded any.
class SyscallFilter {
public:
    using Ticket = std::uint16_t;

    // Whether that process is excluded now. Then it has not come into other control groups since it was excluded, nor
    // was it made in others than those of its parent, which was excluded. False for a thread that is not its process's
    // leader.
    virtual bool IsExcluded(int process) const = 0;

    // Empty when that process is excluded already, or cannot be.
    virtual std::optional<Ticket> TicketOf(int process) const = 0;

    // `process` is the host's. Its later children are excluded, too, as long as they stay in its control groups.
    virtual void Exclude(int process, Ticket ticket) = 0;

    virtual ProcessIdentity IdentityOf(int process) const = 0;

    // Has the kernel tell of the exits of that process and its threads, also where it has not told of their forks.
    virtual void FollowExit(int process) = 0;

    // Gives a process that has none an identity, `number`, or a new one if that is 0: it came into its control groups
    // before the kernel was asked to tell. What it has forked until then has none. The number; 0 when it fails.
    virtual std::uint32_t GiveIdentity(int process, std::uint32_t number) = 0;

protected:
    ~SyscallFilter() = default;
};

}  // namespace Engine
