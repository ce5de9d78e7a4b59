// SPDX-License-Identifier: Apache-2.0
// The tasks that asked for notices about container processes.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "framework/Task.h"
#include "host/ftrace/TraceObserver.h"

namespace Engine {

// Any thread. When Remove has returned, nothing more is sent to that task.
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

    mutable std::mutex mutex;
    std::vector<Receiver> receivers;
    bool arrival = false;
};

}  // namespace Engine
