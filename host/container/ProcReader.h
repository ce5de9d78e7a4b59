// SPDX-License-Identifier: Apache-2.0
// What the container registry asks the kernel about a thread: an interface, so that recorded streams can be replayed
// without a kernel.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Engine {

// Ids are those of threads: /proc/<tid> exists for every thread, also for those that /proc does not list (proc(5)).
// Every answer describes the present, which may be later than the event that led to the question. Any thread.
// Nothing throws but std::bad_alloc.
class ProcReader {
public:
    // Threads of one process that Threads lists at most.
    static constexpr std::size_t maxThreads = 65536;

    virtual ~ProcReader() = default;

    // The id of the container that its control groups belong to, empty for none. Nothing when the thread has gone.
    virtual std::optional<std::string> ContainerOf(int tid) = 0;

    // The same for a control group of version 2, by its id (cgroup_id() in the kernel). Empty when that has gone, too.
    virtual std::string ContainerOfGroup(std::uint64_t group) = 0;

    // Whether it has the mount namespace of the host. Nothing when the thread has gone.
    virtual std::optional<bool> InHostMountNamespace(int tid) = 0;

    // Whether its program is a file without a name (memfd_create(2)) or the very file that its parent runs: the two
    // ways in which a runtime's set-up process is a copy of the runtime. False when that cannot be read.
    virtual bool RunsCopyOfParent(int tid) = 0;

    // The parent's process id, -1 when the thread has gone.
    virtual int ParentOf(int tid) = 0;

    // When it started, on CLOCK_MONOTONIC and rounded down by a scheduler's tick or so. Nothing when it has gone.
    virtual std::optional<std::chrono::nanoseconds> StartOf(int tid) = 0;

    // The target of its exe link, empty when that cannot be read.
    virtual std::string ExecutableOf(int tid) = 0;

    virtual std::vector<int> Processes() = 0;
    virtual std::vector<int> Threads(int pid) = 0;
};

}  // namespace Engine
