// SPDX-License-Identifier: Apache-2.0
// Scoped subscriptions to the agent's event sources: constructing a handle subscribes, Valid() tells whether that
// worked, Reset() and the destructor unsubscribe.
//
// Ownership: a handle refers to the task or module on whose behalf it acts; both must outlive it. Held by value in a
//            list or as a member, never copied or moved: the subscription is the object.
// Thread:    the owner's thread, for everything. Watch() of the first three waits for the source's answer.
// Errors:    a refusal or time-out leaves the handle invalid; it then sends nothing when it goes.
#pragma once

#include <string>

#include "framework/Module.h"
#include "framework/Task.h"
#include "messages/FileNotifyMessages.h"

namespace Engine::FtraceUtils {

// A trace event of "ftrace_task", named by the kernel's system ("sched") and event ("sched_process_fork").
class FtraceWatchHandle {
public:
    FtraceWatchHandle(Framework::Task* task, std::string system, std::string event);
    FtraceWatchHandle(const FtraceWatchHandle&) = delete;
    FtraceWatchHandle& operator=(const FtraceWatchHandle&) = delete;
    ~FtraceWatchHandle();

    // Subscribes, waiting at most ten seconds. Called by the constructor; called again it leaves Valid() as it is.
    bool Watch();
    void Reset();
    bool Valid() const { return valid; }

private:
    Framework::Task* task;
    std::string system;
    std::string event;
    bool valid;
};

// What is written and closed below a mount point, directories included, from "filenotify_task".
class WatchMountHandle {
public:
    WatchMountHandle(Framework::Task* task, std::string path);
    WatchMountHandle(const WatchMountHandle&) = delete;
    WatchMountHandle& operator=(const WatchMountHandle&) = delete;
    ~WatchMountHandle();

    // Waits at most one second; otherwise as above.
    bool Watch();
    void Reset();
    bool Valid() const { return valid; }

private:
    Framework::Task* task;
    std::string path;
    bool valid;
};

// The same for one file.
class WatchFileHandle {
public:
    WatchFileHandle(Framework::Task* task, std::string path);
    WatchFileHandle(const WatchFileHandle&) = delete;
    WatchFileHandle& operator=(const WatchFileHandle&) = delete;
    ~WatchFileHandle();

    bool Watch();
    void Reset();
    bool Valid() const { return valid; }

private:
    Framework::Task* task;
    std::string path;
    bool valid;
};

// The registration of a task as the consumer of another task's messages of one type.
class MessageConsumerHandle {
public:
    MessageConsumerHandle(Framework::Module* module, std::string taskName, unsigned long messageType,
                          std::string consumerName, Framework::Task* consumer);
    MessageConsumerHandle(const MessageConsumerHandle&) = delete;
    MessageConsumerHandle& operator=(const MessageConsumerHandle&) = delete;
    ~MessageConsumerHandle();

    // False when there is no such producer or it refuses. Does not wait.
    bool Watch();
    // Looks the producer up again: it may have gone in the meantime, and with it the registration.
    void Reset();
    bool Valid() const { return valid; }

private:
    Framework::Module* module;
    std::string taskName;
    unsigned long messageType;
    std::string consumerName;
    Framework::Task* consumer;
    bool valid;
};

}  // namespace Engine::FtraceUtils
