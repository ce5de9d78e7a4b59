// SPDX-License-Identifier: Apache-2.0
// All processes of the machine and their threads, as they are at one time, with the processes' control groups.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/ftrace/SyscallFilter.h"
#include "host/sdk/SystemView.h"

namespace Engine {

struct ProcListing {
    struct Process {
        int pid;
        int parent;
        std::size_t groups;  // index
        std::chrono::nanoseconds started;
        std::uint64_t kernelGroups = 0;  // as SyscallFilter::Listed has them; 0: it was not asked
        ProcessIdentity identity = {};
    };
    struct Thread {
        int tid;
        std::size_t process;  // index
        std::chrono::nanoseconds started;
    };
    std::vector<Process> processes;
    std::vector<Thread> threads;                   // beside the processes' first ones
    std::vector<std::vector<SDK::Cgroup>> groups;  // each list once: many processes have the same

    // Thread: the registry's. Errors: throws nothing but std::bad_alloc; leaves out what has gone meanwhile.
    // By the kernel where it tells, which then has /proc asked for one process of each control group only; `filter`:
    // null for /proc alone.
    static ProcListing Of(SDK::SystemView& system, SyscallFilter* filter);
};

}  // namespace Engine
