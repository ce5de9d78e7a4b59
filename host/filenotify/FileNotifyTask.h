// SPDX-License-Identifier: Apache-2.0
// The task "filenotify_task": takes watch messages and delivers the accesses of container processes to the subscribers.
//
// The answer to a FileNotifyWatchMessage is 0, or -1 with a log record: a malformed entry, a permission event, a
// filesystem that can be marked in no way, or the withdrawal of a watch that there is not. A path that does not exist
// is waited for. What a task that is restarted takes back stays in force until it runs again. Thread: its own, for
// everything but construction, destruction and Watches.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Task.h"
#include "host/filenotify/FanotifyGroup.h"
#include "host/filenotify/FileStatus.h"
#include "host/filenotify/Marks.h"
#include "host/filenotify/Notifier.h"
#include "host/filenotify/WatchTable.h"
#include "messages/FileNotifyMessages.h"

namespace Engine {

class FileNotifyTask : public Framework::Task,
                       public FileStatus,
                       public AbstractMessage<FileNotifyWatchMessage>::Receiver {
public:
    // `opened`: a group that is open.
    explicit FileNotifyTask(FanotifyGroup opened);

    int Init() override;
    int UnInit() override;

    // While events keep coming the group's descriptor is taken out of the waiter and read every 5 ms: the kernel
    // then merges the writes of one process to one file in its queue, and a busy host does not wake the agent for each.
    // A flood is read without a pause, so that the queue is not full before the next read.
    int Run() override;

    int Receive(const FileNotifyWatchMessage& message) override;

    std::map<std::string, std::string> Watches() const override;

private:
    using Clock = std::chrono::steady_clock;

    void UpdateMarks();
    std::string AddWatch(const FileNotifyWatchMessage& message);
    std::string RemoveWatch(const FileNotifyWatchMessage& message);
    bool IsRestarting(const Framework::Task* subscriber) const;
    void EndSuspended();
    void ChangeGroup(bool withObjects);
    void StopListening();
    bool ReadEvents();
    bool ListenAgain();
    int TimeoutMs(Clock::time_point now) const;

    FanotifyGroup group;
    WatchTable watches;
    Marks marks{group};
    Notifier notifier;
    mutable std::mutex mutex;  // of the next one
    std::map<std::string, std::string> states;
    std::vector<std::byte> buffer;
    bool listening = false;      // the descriptor is in the waiter
    bool readable = false;       // it was reported ready
    Clock::time_point nextRead;  // while not listening
    Clock::time_point nextCheck;
};

}  // namespace Engine
