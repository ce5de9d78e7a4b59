// SPDX-License-Identifier: Apache-2.0
// What the agent knows about processes, by process or thread id as the agent's own pid namespace numbers them.
// Every answer comes from the system view (the live system, or a recorded one). Any thread. Nothing throws.
#pragma once

#include <string>

namespace SDK {

class ProcessUtils {
public:
    // proc(5), /proc/<pid>/status.
    struct procStatus {
        int ppid = -1;
        std::string name;  // the command name, at most 15 bytes, chosen by the process itself
    };

    // Fills `id` with the id of the container that the process is in, empty for a process of the host and for a
    // container runtime that is still setting a container up. While a trace event is being delivered on this thread the
    // answer is the one that held at the event's time. 0: known; -1: no such process and none remembered.
    static int GetContainerID(int pid, std::string& id);

    // The target of /proc/<pid>/exe. 0, or -1 (no such process, a kernel thread); `path` is then untouched.
    static int GetProcessExePath(unsigned int pid, std::string& path);

    // While a system call is being delivered on this thread, and the kernel's record of it tells that, the status of
    // the thread that made it is the one that it had then. 0, or -1 (no such process); `status` is then untouched.
    static int GetProcessStatusInfo(int pid, procStatus& status);
};

}  // namespace SDK
