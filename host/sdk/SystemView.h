// SPDX-License-Identifier: Apache-2.0
// The one place from which the SDK learns about the world: clock, processes, containers of processes, namespaces.
// The live system answers in the agent; a recorded one answers in tests and replays.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sdk/ProcessUtils.h"

namespace SDK {

// Who knows in which container a process is. Implemented by the container module, asked by the live view.
class ContainerResolver {
public:
    // As ProcessUtils::GetContainerID. Any thread.
    virtual int ContainerOf(int pid, std::string& id) = 0;

    // Whether the process may be about to become a container's: as far as is known it is still a container runtime that
    // sets one up, but what is known may lag behind by the time that events take. Any thread.
    virtual bool MayBeEntering(int pid) = 0;
    virtual ~ContainerResolver() = default;
};

// Any thread. Nothing throws but std::bad_alloc. Contracts of the answers: ProcessUtils, NamespaceUtils, TimeUtils.
class SystemView {
public:
    virtual ~SystemView() = default;

    virtual std::int64_t WallClockSeconds() = 0;
    virtual int ContainerOf(int pid, std::string& id) = 0;
    // As with ContainerResolver; false where nobody follows processes.
    virtual bool MayBeEntering(int /*pid*/) { return false; }
    virtual int ExecutablePath(unsigned int pid, std::string& path) = 0;
    virtual int Status(int pid, ProcessUtils::procStatus& status) = 0;
    virtual int Namespaces(int pid, std::map<std::string, std::string>& namespaces) = 0;

    // Ids of the processes (thread group leaders) that run now, ascending.
    virtual std::vector<int> Processes() = 0;
    // Arguments joined by blanks, at most 4096 bytes. 0, or -1 when the process has gone.
    virtual int CommandLine(int pid, std::string& commandLine) = 0;

    // The view in force. Never null: the live system until Exchange puts another in place.
    static SystemView& Current();

    // Puts `next` in force and returns the one before. Null brings the live system back. Not owned: `next` must outlive
    // its use. Not while other threads ask.
    static SystemView* Exchange(SystemView* next);

    // Tells the live view whom to ask about containers; null: nobody, /proc/<pid>/cgroup decides alone. Not owned.
    // Any thread; the resolver may be asked for a moment longer by calls that have already begun, Clear waits for them.
    static void SetContainerResolver(ContainerResolver* resolver);
};

}  // namespace SDK
