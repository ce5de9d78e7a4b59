// SPDX-License-Identifier: Apache-2.0
// The one place from which the SDK learns about the world: clock, processes, containers of processes, namespaces.
// The live system answers in the agent; a recorded one answers in tests and replays.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "sdk/ProcessUtils.h"

namespace Engine {
struct ContainerInfo;
}

namespace SDK {

struct Cgroup {
    int hierarchy = 0;  // its number, as in /proc/<pid>/cgroup; 0: that of version 2
    std::string path;   // within the hierarchy, from a slash on
    unsigned int owner = 0;
    bool operator<(const Cgroup& other) const
    {
        return std::tie(hierarchy, path, owner) < std::tie(other.hierarchy, other.path, other.owner);
    }
};

// What is to be had about a process for people that look into an alarm. What is empty could not be read.
struct ProcessDetails {
    int process = 0;  // the id of the process that a thread belongs to; 0: not known
    int parent = 0;
    std::string executable;              // as it was executed, where that was recorded, else as /proc tells
    std::string linkedExecutable;        // as /proc tells now; empty for a thread that has ended
    std::vector<std::string> arguments;  // 4096 bytes at most
    std::string workingDirectory;
    std::chrono::nanoseconds started{0};  // CLOCK_MONOTONIC; 0: not known
    std::optional<unsigned int> uid;      // real ids, as the agent's user namespace numbers them
    std::optional<unsigned int> gid;
    std::optional<unsigned int> loginUid;  // audit's; 4294967295 for none
    std::string capabilities;              // effective ones, hexadecimal (proc(5), CapEff)
};

// Knows in which container a process is. Implemented by the container module, asked by the live view. Questions change
// nothing.
class ContainerResolver {
public:
    // As ProcessUtils::GetContainerID. Any thread.
    virtual int ContainerOf(int pid, std::string& id) = 0;

    // Whether the process may be about to become a container's: as far as is known it is still a container runtime that
    // sets one up, but what is known may lag behind by the time that events take. Any thread.
    virtual bool MayBeEntering(int pid) = 0;

    // What is kept of a thread, which may have ended.
    struct Kept {
        std::chrono::nanoseconds seen;  // it had started by then, CLOCK_MONOTONIC
        int parent = -1;                // the thread that forked it; -1: not known
        bool hasEnded = false;
        std::shared_ptr<const ProcessDetails> executed;  // at its last exec, or its ancestor's; null: not known
    };
    // Nothing for a thread that is not known, and while an event is being delivered (TraceTime) that is older than it.
    // Any thread.
    virtual std::optional<Kept> FindKept(int /*tid*/) { return std::nullopt; }
    // As SystemView::ContainerRecord. Any thread.
    virtual std::shared_ptr<const Engine::ContainerInfo> Record(const std::string& /*id*/) { return nullptr; }
    virtual ~ContainerResolver() = default;
};

// Any thread. Nothing throws but std::bad_alloc. Contracts of the answers: ProcessUtils, NamespaceUtils, TimeUtils.
class SystemView {
public:
    virtual ~SystemView() = default;

    virtual std::int64_t WallClockSeconds() = 0;
    virtual int ContainerOf(int pid, std::string& id) = 0;
    // As with ContainerResolver; false where processes are not followed.
    virtual bool MayBeEntering(int /*pid*/) { return false; }
    // What its engine, or a file that only root can have written, says about a container. Null: nothing does.
    virtual std::shared_ptr<const Engine::ContainerInfo> ContainerRecord(const std::string& /*id*/) { return nullptr; }
    virtual int ExecutablePath(unsigned int pid, std::string& path) = 0;
    virtual int Status(int pid, ProcessUtils::procStatus& status) = 0;
    virtual int Namespaces(int pid, std::map<std::string, std::string>& namespaces) = 0;

    // Ids of the processes (thread group leaders) that run now, ascending.
    virtual std::vector<int> Processes() = 0;
    // Ids of a process's threads, the leader's included, at most 65536; empty when the process has gone.
    virtual std::vector<int> Threads(int /*pid*/) { return {}; }
    // Arguments joined by blanks, at most 4096 bytes. 0, or -1 when the process has gone.
    virtual int CommandLine(int pid, std::string& commandLine) = 0;

    // The program, its arguments, and for a thread that has ended all else as of its last exec, where that was
    // recorded. Nothing where there is neither a record nor a thread.
    virtual std::optional<ProcessDetails> Describe(int /*tid*/) { return std::nullopt; }

    // What the kernel says about a thread at this moment, which may be later than the event that led to the question.
    // /proc/<tid> exists for every thread, also for those that /proc does not list (proc(5)).
    //
    // Its control groups. Nothing when the thread has gone.
    virtual std::optional<std::vector<Cgroup>> Cgroups(int /*tid*/) { return std::nullopt; }
    // The path of a control group of version 2, by its id (cgroup_id() in the kernel). Empty when that has gone.
    virtual std::string PathOfCgroup(std::uint64_t /*cgroup*/) { return {}; }
    // Whether it has the root directory that process 1 has, or the agent where that may not be looked at. Nothing when
    // it has gone.
    virtual std::optional<bool> HasHostRoot(int /*tid*/) { return std::nullopt; }
    // Whether it has the mount namespace that process 1 has, or the agent's own. Nothing when it has gone.
    virtual std::optional<bool> HasHostMounts(int /*tid*/) { return std::nullopt; }
    // Whether both run the same file. False when either cannot be looked at.
    virtual bool RunSameFile(int /*tid*/, int /*other*/) { return false; }
    // Nothing when it has gone.
    struct Stat {
        int parent = 0;                      // of its process, a process id
        std::chrono::nanoseconds started{};  // on CLOCK_MONOTONIC, rounded down by up to `startRounding`
    };
    static constexpr std::chrono::milliseconds startRounding{20};
    virtual std::optional<Stat> StatOf(int /*tid*/) { return std::nullopt; }

    // The view in force. Never null: the live system until Exchange puts another in place.
    static SystemView& Current();

    // Puts `next` in force and returns the one before. Null brings the live system back. Not owned: `next` must outlive
    // its use. Not while other threads ask.
    static SystemView* Exchange(SystemView* next);

    // Gives the live view its resolver; null: /proc/<pid>/cgroup decides alone. Not owned. Any thread. Returns when no
    // call asks the resolver before any more.
    static void SetContainerResolver(ContainerResolver* resolver);
};

}  // namespace SDK
