// SPDX-License-Identifier: Apache-2.0
// The tasks that asked for notices about container processes.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "framework/Task.h"
#include "host/ftrace/TraceObserver.h"

namespace Engine {

// Any thread, but Send from one at a time. When Remove has returned, nothing more is sent to that task.
class NoticeReceivers {
public:
    // A task counts once, however often it is added. Not owned.
    void Add(Framework::Task& task);
    void Remove(const Framework::Task& task);

    bool IsEmpty() const;

    // Whether somebody was added since the last call.
    bool TakeArrival();

    // Events that the receivers' queues have refused since the last call.
    std::uint64_t TakeLosses();

    // One message, shared by all receivers: they only read it.
    void Send(TraceSequencer& sequencer, const std::shared_ptr<Framework::Message>& message);

private:
    struct Receiver {
        Framework::Task* task;
        unsigned long lost;
    };

    // The receivers of one message, whom Remove waits for until it is sent.
    class Targets {
    public:
        explicit Targets(NoticeReceivers& owner);
        ~Targets();
        Targets(const Targets&) = delete;
        Targets& operator=(const Targets&) = delete;

    private:
        NoticeReceivers& owner;
    };

    mutable std::mutex mutex;  // not held while a message is sent: the queue's side has locks of its own
    std::condition_variable sent;
    std::vector<Receiver> receivers;
    std::vector<Framework::Task*> targets;  // of the message that is being sent
    bool arrival = false;
};

}  // namespace Engine
