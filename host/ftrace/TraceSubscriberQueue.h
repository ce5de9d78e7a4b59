// SPDX-License-Identifier: Apache-2.0
// What is on its way to one subscriber, and how much of it each container may have.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "framework/Task.h"
#include "host/ftrace/EventBatch.h"
#include "host/ftrace/MessageSender.h"
#include "host/ftrace/TraceCounts.h"

namespace Engine {

// What the queues of all subscribers have in common.
struct TraceOutlet {
    std::shared_ptr<const void> kinds;  // owner of the kinds of all events
    MessageSender send;
    TraceCounts* counts;  // not owned
};

// Collects events and messages in their order, sends them in batches, and counts every event that does not reach the
// subscriber; what does is counted when it is handled (trace.delivered, by EventBatch).
//
// Fair share: a full queue loses whatever comes next, the one call of a quiet container as well as the millionth of a
// loud one. So long before it is full, while the subscriber is more than `patience` behind, each container may only
// have its share of what waits, and each kind of event of a container its share of that: a flood of one call does not
// drown the container's own other calls either. The rest is excluded (trace.shed). While the subscriber keeps up, as it
// does but in a storm, that costs a look at two numbers for each batch.
//
// Thread: the trace task's.
class TraceSubscriberQueue {
public:
    // Alarms of others must come within a second, also when several containers storm at once.
    static constexpr std::chrono::milliseconds patience{100};
    // Bounds of the events that may wait: so many that a burst passes, so few that they take some megabytes.
    static constexpr std::uint64_t leastRoom = 2048;
    static constexpr std::uint64_t mostRoom = 65536;

    // `outlet`: not owned. Of the task only the name and the address are kept: it may go at any time.
    TraceSubscriberQueue(const Framework::Task& task, const TraceOutlet& outlet);

    const Framework::Task* Task() const { return task; }
    const std::string& Name() const { return name; }

    void AddEvent(const EventKind& kind, const RawRecord& record) { Append(kind, record, false); }

    // A system call, if the container `origin` has not had its share. Other events are never excluded: a fork or an
    // exit that is missing would falsify what is known about later events.
    void AddCall(const EventKind& kind, const RawRecord& record, std::uint64_t origin)
    {
        if (stage == Stage::Calm || TakesFromShare(origin, kind)) {
            Append(kind, record, true);
        } else {
            ++outlet->counts->shed;
        }
    }

    // The message comes after the events added before, and before those added later.
    void AddMessage(std::shared_ptr<Framework::Message> message);

    // Sends what was added, and looks at what became of what was sent before. At the end of each round.
    void Flush();

    // Whether the last sending failed.
    bool IsRefused() const { return refused; }

    // Events that were accepted and are neither handled nor dropped yet.
    std::uint64_t Waiting() const { return waiting; }

private:
    // Counting begins before anything is excluded, so that it is known by then what fills the queue.
    enum class Stage { Calm, Counting, Excluding };

    void Append(const EventKind& kind, const RawRecord& record, bool isCall);
    EventBatch& Begin();
    void Send();
    void TakeBack();
    void CountUndelivered(std::uint64_t& count, const EventBatch& batch);
    void KeepSpare(std::shared_ptr<EventBatch> done);
    void NoteCost(const EventBatch& batch);
    void JudgeBacklog();
    bool TakesFromShare(std::uint64_t origin, const EventKind& kind);

    const Framework::Task* task;
    std::string name;
    const TraceOutlet* outlet;
    std::shared_ptr<EventBatch> batch;  // being filled; null: none begun
    std::deque<std::shared_ptr<EventBatch>> sent;
    std::vector<std::shared_ptr<EventBatch>> spare;
    bool refused = false;
    std::uint64_t waiting = 0;
    // Recent cost of one event to the subscriber, in ns. At first that of one that raises an alarm, so that a
    // subscriber which comes in the middle of a storm is not given more than it may be able to handle.
    std::uint64_t costOfEvent = 20000;
    Stage stage = Stage::Calm;
    std::uint64_t share = leastRoom;
    std::unordered_map<std::uint64_t, std::uint64_t> taken;  // since the last calm, by kind and by container
};

}  // namespace Engine
