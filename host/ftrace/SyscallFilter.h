// SPDX-License-Identifier: Apache-2.0
// Which processes the kernel excludes: it records neither their system calls nor their lives.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

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

    // Identities for processes that came into their control groups before the kernel was asked to tell of that.
    static constexpr std::size_t mostExcept = 32;
    struct Given {
        std::unordered_map<std::uint64_t, std::uint32_t> numbers;  // by the processes' `groups`
        std::vector<int> except;                                   // processes that get none, up to `mostExcept`
    };

    // A thread. Its process's `groups` are the same number for all that are in the same control groups, as long as one
    // of them is; 0: its first thread is ending.
    struct Listed {
        int thread;
        int process;
        int parent;  // of the process, a process id
        std::uint64_t groups;
        std::chrono::nanoseconds started;  // on CLOCK_MONOTONIC
        ProcessIdentity identity;          // of the process
    };

    // All threads by their ids, after those processes that have no identity were given what is said. Of a process that
    // has one the kernel tells the exits from now on, its threads' included, also where it has not told of their forks.
    // Empty when the kernel fails, which is logged.
    virtual std::vector<Listed> List(const Given& given) = 0;

    // One that no process has.
    virtual std::uint32_t NewIdentity() = 0;

protected:
    ~SyscallFilter() = default;
};

}  // namespace Engine
