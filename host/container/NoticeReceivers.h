// SPDX-License-Identifier: Apache-2.0
// The tasks that asked for notices about container processes.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "framework/Message.h"
#include "framework/Task.h"
#include "host/ftrace/TraceObserver.h"
#include "messages/ContainerMessages.h"

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

    // Whether a receiver's queue has refused events since the last call.
    bool TakeLoss();

    // One message, shared by all receivers: they only read it.
    void Send(TraceSequencer& sequencer, const std::shared_ptr<Framework::Message>& message);

    // A stop notice. The info's process is among the unheard if not every receiver handles it.
    void SendStop(TraceSequencer& sequencer, std::shared_ptr<ContainerProcMessage::ProcInfo> info);

    // The processes whose stop notices ceased to be before every receiver had handled them, since the last call: a
    // queue was full, or its task ended.
    std::vector<int> TakeUnheard();

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

    class StopNotice;
    struct UnheardList {
        std::mutex mutex;
        std::vector<int> tids;
    };

    mutable std::mutex mutex;  // not held while a message is sent: the queue's side has locks of its own
    std::condition_variable sent;
    std::vector<Receiver> receivers;
    std::vector<Framework::Task*> targets;  // of the message that is being sent
    bool arrival = false;
    std::shared_ptr<UnheardList> unheard = std::make_shared<UnheardList>();  // with the notices that are under way
};

}  // namespace Engine
