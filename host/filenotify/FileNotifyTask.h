// SPDX-License-Identifier: Apache-2.0
// The task "filenotify_task": takes watch messages and delivers the accesses of container processes to the watchers.
//
// The answer to a FileNotifyWatchMessage is 0, or non-zero with a log record: a malformed entry, a permission event, a
// filesystem that can be marked in no way, a path that does not exist with the option existingOnly, or the withdrawal
// of a watch that there is not. A path that does not exist otherwise is waited for. Thread: its own, for everything but
// construction and destruction.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

#include "framework/Task.h"
#include "host/filenotify/FanotifyGroup.h"
#include "host/filenotify/MarkKeeper.h"
#include "host/filenotify/Notifier.h"
#include "host/filenotify/WatchTable.h"
#include "messages/FileNotifyMessages.h"

namespace Engine {

struct FileNotifyTiming {
    std::chrono::milliseconds readPause{5};       // between two reads while events keep coming; see FileNotifyTask::Run
    std::chrono::milliseconds checkPeriod{1000};  // between two looks at where the watched paths are
};

class FileNotifyTask : public Framework::Task, public AbstractMessage<FileNotifyWatchMessage>::Receiver {
public:
    // `opened`: a group that is open.
    explicit FileNotifyTask(FanotifyGroup opened, const FileNotifyTiming& timing = {});

    int Init() override;
    int UnInit() override;

    // While events keep coming the group's descriptor is taken out of the waiter and read every `readPause`: the kernel
    // then merges the writes of one process to one file in its queue, and a busy host does not wake the agent for each.
    int Run() override;

    int Receive(const FileNotifyWatchMessage& message) override;

private:
    using Clock = std::chrono::steady_clock;

    int AddWatch(const FileNotifyWatchMessage& message);
    int RemoveWatch(const FileNotifyWatchMessage& message);
    int Refuse(const FileNotifyWatchMessage& message, const std::string& why) const;
    bool ReadEvents();
    bool ListenAgain();
    int TimeoutMs(Clock::time_point now) const;

    FanotifyGroup group;
    FileNotifyTiming timing;
    WatchTable watches;
    MarkKeeper keeper{group};
    Notifier notifier;
    std::vector<std::byte> buffer;
    bool listening = false;      // the descriptor is in the waiter
    bool readable = false;       // it was reported ready
    Clock::time_point nextRead;  // while not listening
    Clock::time_point nextCheck;
};

}  // namespace Engine
