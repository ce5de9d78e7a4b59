// SPDX-License-Identifier: Apache-2.0
// Who gets which event, counted.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "framework/Task.h"
#include "host/ftrace/EventBatch.h"
#include "host/ftrace/EventCatalog.h"
#include "host/ftrace/StormGuard.h"

namespace Engine {

// A subscribed task and what is on its way to it.
struct TraceTarget {
    explicit TraceTarget(const Framework::Task& subscriber) : task(&subscriber), name(subscriber.name()) {}

    const Framework::Task* task;  // its identity only: it may be gone
    std::string name;
    std::unique_ptr<EventBatch> batch;  // null: none begun
    std::shared_ptr<Backlog> backlog = std::make_shared<Backlog>();
    StormGuard guard;
    bool refused = false;  // the last sending failed
};

// One name of an event with its subscribers.
struct TraceRoute {
    struct Subscriber {
        TraceTarget* target;
        unsigned count;  // how often the task subscribed
    };

    const KnownEvent* event;
    bool isSyscall;
    bool isObserved;
    std::vector<Subscriber> subscribers;
};

// Refers to the catalogue's entries. Thread: one at a time.
class SubscriptionTable {
public:
    // Both count. Add returns whether nobody used the kernel's event before, Remove whether nobody uses it any more; a
    // withdrawal of what the task had not subscribed changes nothing.
    bool Add(const Framework::Task& task, const KnownEvent& event);
    bool Remove(const Framework::Task& task, const KnownEvent& event);

    // The observer's interest, which there is once. Observe returns as Add does; StopObserving returns the events that
    // nobody uses any more.
    bool Observe(const KnownEvent& event);
    std::vector<const KnownEvent*> StopObserving();

    // Takes every subscription of the task back and forgets the task. Returns as StopObserving does.
    std::vector<const KnownEvent*> Forget(const Framework::Task* task);

    // The routes of the kernel's event with that id; usually one, none for an event that nobody uses.
    const std::vector<TraceRoute>& RoutesOf(std::uint16_t id) const { return id < routes.size() ? routes[id] : none; }

    // Whether an event with that id, which may be in use no more, is a system call.
    bool WasSyscall(std::uint16_t id) const { return id < syscalls.size() && syscalls[id]; }

    // One event for each id in use.
    std::vector<const KnownEvent*> InUse() const;

    const std::vector<std::unique_ptr<TraceTarget>>& Targets() const { return targets; }
    TraceTarget* Find(const Framework::Task* task) const;

private:
    TraceRoute& RouteOf(const KnownEvent& event);
    TraceTarget& TargetOf(const Framework::Task& task);
    void DropUnused(const KnownEvent& event);
    template <class Change>
    std::vector<const KnownEvent*> ChangeAll(Change change);
    void DropTarget(const TraceTarget& target);
    bool HasRoutes(const TraceTarget& target) const;

    static inline const std::vector<TraceRoute> none;
    std::vector<std::vector<TraceRoute>> routes;  // by the event's id in the kernel
    std::vector<bool> syscalls;                   // likewise, of every event there ever was a route for
    std::vector<std::unique_ptr<TraceTarget>> targets;
};

}  // namespace Engine
