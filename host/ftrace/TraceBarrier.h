// SPDX-License-Identifier: Apache-2.0
// A message that waits until the trace has been followed up to its time.
#pragma once

#include <chrono>
#include <functional>

#include "framework/Message.h"
#include "host/ftrace/MessageSender.h"

namespace Engine {

// For what another source knows about processes: it goes on behind the trace events that tell of them. Sent to the task
// "ftrace_task", whose subscribers are then the receivers of what follows. A queue keeps the order of what one thread
// sends, but none between threads: only from the trace task's own does a message come after the events that it has sent
// before.
//
// Threads: made on any, the calls and the end on the trace task's. One that ends without OnFlushed was not taken: the
// trace task's queue was full, or it had stopped.
class TraceBarrier : public Framework::Message {
public:
    // `when`: on CLOCK_MONOTONIC; of what one thread sends each not earlier than the one before.
    explicit TraceBarrier(std::chrono::nanoseconds when) : when(when) {}

    std::chrono::nanoseconds When() const { return when; }

    // The observer has seen every event until then. `reportActive`: tells the observer of a process that this source
    // has seen to act, before the subscribers hear of it.
    using ReportActive = std::function<void(int pid)>;
    virtual void OnObserved(const ReportActive& reportActive) = 0;

    // The events until then are in the subscribers' queues, and so are the messages that the observer put between them.
    virtual void OnFlushed(const MessageSender& send) = 0;

    int MessageHandle(void* /*target*/) final { return -1; }  // no other task has a use for it

private:
    std::chrono::nanoseconds when;
};

}  // namespace Engine
