// SPDX-License-Identifier: Apache-2.0
// The host's process table, as the task "procs_full_task" of libprocess_collect_module.so keeps it.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "framework/Task.h"

namespace Engine {

struct ProcsMessage {
    // Texts come from the process itself and are hostile input.
    struct procInfo {
        int pid = -1;  // as the agent's own pid namespace numbers them
        int ppid = -1;
        std::string path;         // target of /proc/<pid>/exe, empty when it cannot be read
        std::string name;         // command name, at most 15 bytes (proc(5), /proc/<pid>/comm)
        std::string cmdline;      // arguments joined by blanks
        std::string containerId;  // empty for a process of the host
    };
};

// Makes the table when it is asked for and keeps none.
class ProcsFullTask : public Framework::Task {
public:
    ProcsFullTask();

    // Replaces `procs` with the processes that run now, keyed by pid: one pass over /proc on the calling thread. A
    // process that goes away during the pass is not in it. Any thread.
    void GetProcsMap(std::map<int, std::shared_ptr<ProcsMessage::procInfo>>& procs);

    // Only keeps the queue empty. 0.
    int Run() override;
};

}  // namespace Engine
