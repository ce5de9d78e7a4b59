// SPDX-License-Identifier: Apache-2.0
// The tasks that asked for notices about container processes.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "framework/Message.h"
#include "framework/Task.h"
#include "host/ftrace/TraceObserver.h"

namespace Engine {

// Thread: any, but Send and the two Take calls from one. When Remove has returned, nothing more is sent to that task.
class NoticeReceivers {
public:
    // A task counts once, however often it is added. Not owned.
    void Add(Framework::Task& task);
    // A task that is restarted goes on to get notices until it runs again, or has come back.
    void Remove(const Framework::Task& task);

    bool IsEmpty() const { return Count() == 0; }
    int Count() const;

    // Whether a task was added since the last call. Forgets those that were restarted and have not come back.
    bool TakeArrival();

    // Whether a receiver's queue has refused events since the last call.
    bool TakeLoss();

    // Whether every receiver gets the trace event that is being observed.
    bool AllGetEvent(const TraceSequencer& sequencer) const;

    // One message, shared by all receivers: they only read it.
    void Send(TraceSequencer& sequencer, const std::shared_ptr<Framework::Message>& message);

private:
    struct Receiver {
        Framework::Task* task;
        unsigned long lost;  // events, as its queue had counted them at the last look
        bool isLeaving = false;
    };

    mutable std::mutex mutex;  // not held while a message is sent: the queue's side has locks of its own
    std::condition_variable sent;
    std::vector<Receiver> receivers;
    std::vector<Framework::Task*> targets;  // of the message that is being sent: Remove waits for them
    bool arrival = false;
};

}  // namespace Engine
