// SPDX-License-Identifier: Apache-2.0
// File notifications, as the task "filenotify_task" of libfilenotify_module.so sends them (fanotify(7)).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "messages/AbstractMessageReceiver.h"
#include "messages/AbstructMessage.h"

// How a watch behaves. Set by position in the order of declaration. This host looks at the last only: it always
// notifies after the access, in the order of the accesses, of all at and below the path, and waits for a path that does
// not exist. NOLINTNEXTLINE(clang-diagnostic-reserved-identifier): the name is part of the contract.
struct _FileNotifyOpt {
    bool permission = false;    // ask before the access is allowed; never honoured: the agent cannot hang its host
    bool once = false;          // drop the watch after its first notification
    bool ownAccesses = false;   // report the agent's own accesses too; never honoured: to look a path up is an access
    bool mount = false;         // the path is a mount point: watch all that is mounted there
    bool dontFollow = false;    // do not follow a symbolic link at the end of the path
    bool existingOnly = false;  // do not wait for a path that does not exist
    bool notifyOnly = false;    // tell after the fact (the opposite of `permission`)
    bool countOnly = false;     // count, do not notify
    std::vector<std::string> excludedPaths;
    std::vector<std::string> excludedProcesses;
    bool keepOrder = false;  // deliver in the order of the accesses
    std::int32_t limit = 0;  // notifications a second; 0: no limit
    // A watch for what is written is also notified of what is made, deleted, moved or given other attributes there, and
    // any watch of accesses through other paths: a hard link, or a directory that was moved away from its path.
    bool changes = false;
};

namespace Engine {

class FileNotifyMessage : public Framework::Message {
public:
    // `watch`: the number of the watch that matched, 0 for none. `mask`: the fanotify event bits, 0 when not known.
    FileNotifyMessage(int watch, const std::string& path, unsigned int mask) : watch(watch), path(path), mask(mask) {}

    // The process (its thread group's id) that made the access; `name` may be empty.
    void SetProcess(unsigned int newPid, const std::string& newName)
    {
        pid = newPid;
        name = newName;
    }

    unsigned int GetEventProcessId() const { return pid; }
    const std::string& GetEventProcessName() const { return name; }
    const std::string& GetEventFilePath() const { return path; }  // as the host names it; hostile input
    unsigned int GetEventMask() const { return mask; }
    int GetWatch() const { return watch; }

    // Calls FileNotifyMessageAction of a task that implements AbstractMessageReceiver; -1 for any other.
    int MessageHandle(void* target) override;

private:
    int watch;
    std::string path;
    unsigned int mask;
    unsigned int pid = 0;
    std::string name;
};

// Begins or ends a watch. Watches are counted per (task, path): the watch ends when as many ends as beginnings have
// come. The path may carry permission letters after "*/*", which then choose the events: r open and read, w modify and
// close after write, x execute, a change of attributes. A directory is watched with all that lies below it.
class FileNotifyWatchMessage : public AbstructMessage<FileNotifyWatchMessage> {
public:
    FileNotifyWatchMessage(Framework::Task* requester, const std::string& path, std::vector<unsigned int> eventMasks,
                           const _FileNotifyOpt& options)
        : requester(requester), path(path), eventMasks(std::move(eventMasks)), options(options), watch(true)
    {
    }

    FileNotifyWatchMessage(Framework::Task* requester, const std::string& path, bool watch)
        : requester(requester), path(path), watch(watch)
    {
    }

    Framework::Task* requester;  // not owned
    std::string path;
    std::vector<unsigned int> eventMasks;  // fanotify event bits; combined
    _FileNotifyOpt options;
    bool watch;  // false: end it
};

}  // namespace Engine
