// SPDX-License-Identifier: Apache-2.0
// Whose system calls the kernel leaves out, and what it has found out for that.
#pragma once

#include <cstdint>
#include <optional>

namespace Engine {

// Where the kernel itself leaves the host's processes out, it starts with all of them in, and takes in again whoever
// comes into other control groups, with all that it forks. Taking out is the other side's: first ask for a ticket, then
// find out what the process is, then hand in the ticket, which is void when the process was moved meanwhile.
// Thread: one at a time.
class SyscallFilter {
public:
    using Ticket = std::uint16_t;

    // Whether the calls of that process are left out now. Then it has not come into other control groups since it was
    // taken out, nor was it made in others than its parent's, who was out.
    virtual bool IsLeftOut(int process) const = 0;

    // Empty when the calls of that process are left out already, or cannot be.
    virtual std::optional<Ticket> TicketOf(int process) const = 0;

    // `process` is the host's. Its later children are left out, too, as long as they stay in its control groups.
    virtual void LeaveOut(int process, Ticket ticket) = 0;

    // Where a process was made in other control groups than its parent's (clone3(2) with CLONE_INTO_CGROUP; no trace
    // event tells): the id of its group of version 2. Takes it: the next question has no answer.
    virtual std::optional<std::uint64_t> TakeBirthGroup(int process) = 0;

protected:
    ~SyscallFilter() = default;
};

}  // namespace Engine
