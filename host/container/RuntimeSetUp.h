// SPDX-License-Identifier: Apache-2.0
// Tells a container runtime that is still setting a container up from the container's own processes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/container/ContainerGroups.h"
#include "host/container/ContainerTable.h"
#include "host/sdk/SystemView.h"

namespace Engine {

// A runtime re-executes its own program, from a memfd or from /proc/self/exe, to set a container up; processes that do
// so inside the container's control group are the runtime's, until one executes the container's program. A container
// can imitate the names, so no answer depends on a name alone.
//
// Pure but for the questions that it asks the system. Errors: throws nothing but std::bad_alloc.
namespace RuntimeSetUp {

// Whether `filename`, as execve(2) got it, is one of the forms in which a program re-executes itself: "/proc/self/exe",
// "/proc/self/fd/N", "/proc/thread-self/fd/N", "/proc/N/exe", "/proc/N/fd/M", and "/dev/fd/N", which the kernel makes
// of fexecve(3) (alloc_bprm() in fs/exec.c). A memfd's own name is never seen here; a file of an image may be called
// so. Hostile input: an image's entry point may have such a name too.
bool IsSelfExecution(std::string_view filename);

// Whether a process that is not known to be Inside and executes `filename` in a container's group is the runtime still.
// `bornInSetUp`: a process in set-up forked it. `place`: as CePlace; 0: /proc tells where it is.
bool Continues(SDK::SystemView& system, int pid, std::string_view filename, bool bornInSetUp, unsigned int place);

// What /proc says about a thread.
struct Found {
    ContainerTable::State state = ContainerTable::State::Host;
    std::string container;  // empty for the host
    int parent = -1;        // process id
};

// Nothing when the thread has gone.
std::optional<Found> Look(SDK::SystemView& system, const ContainerGroups& groups, int tid);

// Of a thread in a container's control groups, Entering or Inside. Entering is a guess: the process runs a copy of the
// runtime and its parent is in no container. A container can arrange the first, not the second, except for the process
// that the runtime itself starts in it; so this is to be believed for a short time only.
ContainerTable::State StateOf(SDK::SystemView& system, int tid, int parent, bool parentIsInside);

// Whether a process has left both the host's root directory and the host's mount namespace. False when it has gone.
bool HasLeftHost(SDK::SystemView& system, int pid);

// The process of the host that has made the container of a process which is there already: of a process that has left
// the host, the nearest ancestor that has not, if that is a runtime, a shim that stays beside a container, or process
// 1, which adopts containers whose runtime has ended. Nothing for every other process: programs of the host that lock
// themselves in have parents of other kinds.
std::optional<int> MakerOf(SDK::SystemView& system, int pid);

// The id that a runtime was told to give the container which it makes: the last word of its command line, as the OCI
// runtimes have it ("runc create --bundle DIR ID", runc(8), crun(1)). Empty when the process is no such runtime, or has
// gone.
std::string IdGivenTo(SDK::SystemView& system, int pid);

// Whether a process runs a runtime, or what stays beside a container on a runtime's behalf: a shim or a monitor.
bool IsMaker(SDK::SystemView& system, int pid);

// Whether a process in a container's groups is of the host and none that a runtime starts there.
bool IsVisitor(SDK::SystemView& system, int pid);

// Whether a process makes containers without executing itself, and is the host's own: crun, youki, systemd-nspawn, and
// process 1, which starts services with a root directory of their own (systemd.exec(5), RootDirectory=, RootImage=).
bool IsManager(SDK::SystemView& system, int pid);

}  // namespace RuntimeSetUp

}  // namespace Engine
