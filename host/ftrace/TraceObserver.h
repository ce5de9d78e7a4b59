// SPDX-License-Identifier: Apache-2.0
// Looks at trace events in their order before any subscriber gets them. The container registry does: it must have taken
// an event into account before a subscriber asks about it, and what it has to say about a process must reach the
// subscriber before that process's next event.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/ftrace/RecordStream.h"
#include "host/ftrace/SyscallFilter.h"
#include "messages/FtraceMessages.h"

namespace Engine {

// Puts messages into the stream of events that a task receives. Valid only during the call that hands it out.
class TraceSequencer {
public:
    // Queues `message` for `target` after every event that was delivered before the one now being observed, and before
    // that one and all later ones. A refusal is counted as the queue's loss.
    virtual void SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message) = 0;

    // Whether the event now being observed goes to that task. False outside of TraceObserver::OnEvent.
    virtual bool GetsEvent(const Framework::Task& task) const = 0;

    // Null when the kernel excludes no process.
    virtual SyscallFilter* Filter() = 0;

protected:
    ~TraceSequencer() = default;
};

// Thread: the trace task's, for every call.
class TraceObserver {
public:
    // The (system, event) pairs that OnEvent wants to see. Asked once, when the observer is added. They are enabled in
    // the kernel from then on; one that the kernel lacks is logged and not observed.
    virtual std::vector<std::pair<std::string, std::string>> ObservedEvents() const = 0;

    // One of the observed events, in time order, before its delivery to any subscriber. `source`: of the thread that
    // the kernel recorded it for.
    virtual void OnEvent(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer) = 0;

    // Stands for a container: the same number for all of its threads. Two containers may share one by chance.
    using Origin = std::uint64_t;
    static constexpr Origin notAdmitted = 0;

    // Where an event of the system "syscalls" comes from, or notAdmitted when it goes no further. `tid`: the thread
    // that made the call. Called once for each such event, after OnEvent for everything older, so it must be quick: no
    // allocation and no system call for a thread that is known, but for those that the kernel could exclude. The
    // observer may put messages before the event with `sequencer`.
    virtual Origin AdmitSyscall(int tid, const RecordSource& source, const FtraceMessage& event,
                                TraceSequencer& sequencer) = 0;

    // Another source has seen these processes act, and its subscribers hear of that before the next call of any kind:
    // they must know all of them then (TraceBarrier, which says how many there are at most).
    virtual void OnActivity(std::span<const int> pids, TraceSequencer& sequencer) = 0;

    // After every round over the CPUs' buffers, before what other sources have seen until then, and at least once a
    // second. `now`: what is older has been observed.
    virtual void OnRound(std::chrono::nanoseconds now, TraceSequencer& sequencer) = 0;

    // Events were lost before the next one that OnEvent sees: what was concluded from the stream may be wrong.
    virtual void OnLoss(TraceSequencer& sequencer) = 0;

    virtual ~TraceObserver() = default;
};

// The trace task's side, found by a dynamic cast from the task "ftrace_task".
class TraceObservable {
public:
    // Not owned. False when there is an observer already. Returns after the observer's events are enabled. Any thread
    // but the trace task's.
    virtual bool AddObserver(TraceObserver& observer) = 0;

    // Returns when no call is under way and none will follow.
    virtual void RemoveObserver(TraceObserver& observer) = 0;

    // Asks for a round soon, from any thread.
    virtual void RequestRound() = 0;

    // Null where the kernel excludes no process. Good as long as the task; IsExcluded may be asked on any thread.
    virtual const SyscallFilter* Filter() = 0;

protected:
    ~TraceObservable() = default;
};

}  // namespace Engine
