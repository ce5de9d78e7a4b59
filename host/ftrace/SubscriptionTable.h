// SPDX-License-Identifier: Apache-2.0
// Which task gets which event, counted, and the queue of each.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/ftrace/EventCatalog.h"
#include "host/ftrace/TraceSubscriberQueue.h"

namespace Engine {

// One name of an event with its subscribers.
struct TraceRoute {
    struct Subscriber {
        TraceSubscriberQueue* queue;
        unsigned count;  // how often the task subscribed; 0: suspended
    };

    const KnownEvent* event;
    bool isSyscall;
    bool isObserved;
    std::vector<Subscriber> subscribers;
};

// Refers to the catalogue's entries. Owns the queues. Thread: one at a time.
class SubscriptionTable {
public:
    // `outlet`: the queues', not owned.
    explicit SubscriptionTable(const TraceOutlet& outlet) : outlet(&outlet) {}

    // Returns whether the kernel's event was unused before.
    bool Add(const Framework::Task& task, const KnownEvent& event);

    // Takes one subscription back, or without an event all of the task's. Returns the kernel's events that are unused
    // now. Where there is no such subscription, nothing changes.
    std::vector<const KnownEvent*> Remove(const Framework::Task* task, const KnownEvent* event = nullptr);

    // As Remove of one subscription, but the last of them stays in force: the task is restarted, and about to ask for
    // most of what it takes back.
    void Suspend(const Framework::Task* task, const KnownEvent& event);

    // Ends what is suspended and was not added again, of the tasks for which `isOver`. Returns as Remove does.
    std::vector<const KnownEvent*> EndSuspended(const std::function<bool(const TraceSubscriberQueue&)>& isOver);
    bool HasSuspended() const { return hasSuspended; }

    // The observer's interest, which there is once. Observe returns as Add does, StopObserving as Remove does.
    bool Observe(const KnownEvent& event);
    std::vector<const KnownEvent*> StopObserving();

    // The routes of the kernel's event with that id; usually one, none for an event that is not in use.
    const std::vector<TraceRoute>& RoutesOf(std::uint16_t id) const { return id < routes.size() ? routes[id] : none; }

    // Whether an event with that id, which may be in use no more, is a system call.
    bool WasSyscall(std::uint16_t id) const { return id < syscalls.size() && syscalls[id]; }

    // What is in use, under every name; without what is suspended.
    std::vector<const KnownEvent*> Events() const;

    // Of tasks that are subscribed. Find: null for others.
    const std::vector<std::unique_ptr<TraceSubscriberQueue>>& Queues() const { return queues; }
    TraceSubscriberQueue* Find(const Framework::Task* task) const;

    // Flushes all queues, also those of tasks that are not subscribed any more and have events waiting.
    void FlushQueues();

private:
    TraceRoute& RouteOf(const KnownEvent& event);
    void RetireUnused();
    template <class Change>
    std::vector<const KnownEvent*> ChangeAll(Change change);

    static inline const std::vector<TraceRoute> none;
    const TraceOutlet* outlet;
    std::vector<std::vector<TraceRoute>> routes;  // by the event's id in the kernel
    bool hasSuspended = false;
    std::vector<bool> syscalls;  // likewise, of every event there ever was a route for
    std::vector<std::unique_ptr<TraceSubscriberQueue>> queues;
    std::vector<std::unique_ptr<TraceSubscriberQueue>> retired;  // their tasks withdrew, some of their events wait
};

}  // namespace Engine
