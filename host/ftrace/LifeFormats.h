// SPDX-License-Identifier: Apache-2.0
// The events of processes' lives as the BPF program records them: which these are, and where their fields lie.
#pragma once

#include <optional>
#include <string>

#include "host/ftrace/SyscallProbeLayout.h"

namespace Engine::LifeFormats {

// sched:sched_process_fork, _exec and _exit, and cgroup:cgroup_attach_task. Nothing for all others.
std::optional<CeLifeEvent> EventOf(const std::string& system, const std::string& event);

// The format file of such an event with the program's fields in place of the kernel's, which has others on some kernels
// (the names of a fork are arrays or have __data_loc). `kernelFormat`: the kernel's own, whose id stays. The fields:
//   fork                parent_comm, parent_pid, child_comm, child_pid
//   exec                filename, pid, old_pid, and of the program's own: place (CePlace)
//   exit                comm, pid, prio
//   cgroup_attach_task  dst_root, dst_id, pid, dst_path, and of the program's own: owner, parent, identity,
//                       identity_before, born_in_setup, executed (CeMoveEvent)
std::string Format(CeLifeEvent event, const std::string& kernelFormat);

}  // namespace Engine::LifeFormats
