// SPDX-License-Identifier: Apache-2.0
// A message that waits until the trace has been followed up to its time.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <span>

#include "framework/Message.h"
#include "host/ftrace/MessageSender.h"

namespace Engine {

// For what another source knows about processes: it goes on behind the trace events that tell of them. Sent to the task
// "ftrace_task", whose subscribers are then the receivers of what follows. A queue keeps the order of what one thread
// sends, but none between threads: only from the trace task's own does a message come after the events that it has sent
// before.
//
// Threads: made on any, the call and the end on the trace task's. One that ends without OnReached was not taken: the
// trace task's queue was full, or it had stopped.
class TraceBarrier : public Framework::Message {
public:
    // `when`: on CLOCK_MONOTONIC; of what one thread sends each not earlier than the one before.
    explicit TraceBarrier(std::chrono::nanoseconds when) : when(when) {}

    std::chrono::nanoseconds When() const { return when; }

    // Tells the observer of processes that this source has seen to act, `mostActive` of them at most. The subscribers
    // know these until the next call: what is about them is to be sent before that.
    static constexpr std::size_t mostActive = 256;
    using ReportActive = std::function<void(std::span<const int> pids)>;

    // The observer has seen every event until then. These events are in the subscribers' queues, and so are the
    // messages that the observer put between them.
    virtual void OnReached(const ReportActive& reportActive, const MessageSender& send) = 0;

    int MessageHandle(void* /*target*/) final { return -1; }  // no other task has a use for it

private:
    std::chrono::nanoseconds when;
};

}  // namespace Engine
