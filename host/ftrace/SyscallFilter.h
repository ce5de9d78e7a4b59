// SPDX-License-Identifier: Apache-2.0
// Which processes' system calls the kernel excludes, and what it has found out for that.
#pragma once

#include <cstdint>
#include <optional>

namespace Engine {

// Where the kernel itself excludes the processes of the host, it starts with all processes included, and includes again
// each process that comes into other control groups, with all that it forks. To exclude one is the agent's decision:
// first ask for a ticket, then find out what the process is, then hand in the ticket, which is void when the process
// was moved meanwhile.
// Thread: one at a time.
class SyscallFilter {
public:
    using Ticket = std::uint16_t;

    // Whether the calls of that process are excluded now. Then it has not come into other control groups since it was
    // excluded, nor was it made in others than those of its parent, which was excluded.
    virtual bool IsExcluded(int process) const = 0;

    // Empty when the calls of that process are excluded already, or cannot be.
    virtual std::optional<Ticket> TicketOf(int process) const = 0;

    // `process` is the host's. Its later children are excluded, too, as long as they stay in its control groups.
    virtual void Exclude(int process, Ticket ticket) = 0;

    // Where a process was made in other control groups than its parent's (clone3(2) with CLONE_INTO_CGROUP; no trace
    // event tells): the id of its group of version 2. Takes it: the next question has no answer.
    virtual std::optional<std::uint64_t> TakeInitialCgroup(int process) = 0;

protected:
    ~SyscallFilter() = default;
};

}  // namespace Engine
