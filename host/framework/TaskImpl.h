// SPDX-License-Identifier: Apache-2.0
// What a task keeps: its queue, its waiter and its thread.
#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "framework/Task.h"
#include "host/framework/RunState.h"
#include "host/framework/SyncMessage.h"
#include "host/sdk/RepeatedReport.h"
#include "sdk/LocklessQueue.h"

namespace Framework {

struct Task::Impl {
    using Queued = std::shared_ptr<Message>;

    Impl(const std::string& featureName, TaskCondition::TaskType type, unsigned int queueCapacity);

    // Thread: the one that starts and stops tasks. Start is for a task whose thread does not run. False, with a log
    // line, when the system has no thread to give.
    bool Start(Task& task);

    // Waits for the thread's end; says so when that takes long. Returns at once when there is no thread.
    void Join(const Task& task);

    bool IsOwnThread() const { return thread.get_id() == std::this_thread::get_id(); }
    bool OnTaskThread() const { return loopThread.load() == std::this_thread::get_id(); }

    // Thread: that of the task.
    bool IsCutShort() const { return interruptible && cancelled; }
    void Loop(Task& task);
    void Drain(Task& task);
    void RunOnce(Task& task);
    int HandleOne(Task& task, Queued& message);
    int Deliver(Task& task, Queued& message);
    void NoteProgress();  // in each pass and with each message

    // Any thread.
    void CountLost(unsigned long events);
    void DropQueued();

    // Waits for the result of a synchronous send. Nothing: the time is up, the message was dropped, or the wait was on
    // the task's own thread and a cancel ended it.
    std::optional<int> WaitFor(std::future<int>& answer, std::chrono::milliseconds timeout) const;

    const std::string featureName;
    const TaskCondition::TaskType type;
    SDK::LocklessQueue<Queued> queue;
    EventWaiter waiter;
    std::vector<Queued> spareBatch;  // task's thread; keeps its memory between calls

    std::atomic<bool> accepting{true};
    std::atomic<bool> restarting{false};
    std::atomic<bool> cancelled{false};
    std::atomic<unsigned long> lostEvents{0};
    std::atomic<std::chrono::steady_clock::time_point> lastProgress{};
    const std::shared_ptr<RunState> state = std::make_shared<RunState>();

    // Whether a cancel cuts short what the task does: from the start of Init to the start of UnInit, which may still
    // handle messages and wait for answers. Task's thread.
    bool interruptible = false;

    std::thread thread;
    std::atomic<std::thread::id> loopThread{};  // the one in runTask; the default value: none
    SDK::RepeatedReport failedRuns;
    SDK::RepeatedReport failedMessages;

    mutable std::mutex consumerMutex;
    std::map<std::pair<unsigned long, std::string>, Task*> consumers;
};

}  // namespace Framework
