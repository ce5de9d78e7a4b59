// SPDX-License-Identifier: Apache-2.0
// What somebody else has to say about processes, brought into the order of the trace events that tell of them.
#pragma once

#include <chrono>

#include "framework/Message.h"
#include "host/ftrace/MessageSender.h"

namespace Engine {

// Sent to the task "ftrace_task", whose subscribers are then the receivers of what follows. A queue keeps the order of
// what one thread sends, but none between threads: only from the trace task's own does a message come after the events
// that it has sent before.
//
// Threads: made on any, the calls and the end on the trace task's. One that ends without OnFlushed was not taken: the
// trace task's queue was full, or it had stopped.
class TraceFollower : public Framework::Message {
public:
    // `when`: on CLOCK_MONOTONIC; of what one thread sends each not earlier than the one before.
    explicit TraceFollower(std::chrono::nanoseconds when) : when(when) {}

    std::chrono::nanoseconds When() const { return when; }

    // The observer has seen every event until then. What it is asked now it takes care of in this same round.
    virtual void OnObserved() = 0;

    // The events until then are in the subscribers' queues, and so are the messages that the observer put between them.
    virtual void OnFlushed(const MessageSender& send) = 0;

    int MessageHandle(void* /*target*/) final { return -1; }  // no other task has a use for it

private:
    std::chrono::nanoseconds when;
};

}  // namespace Engine
