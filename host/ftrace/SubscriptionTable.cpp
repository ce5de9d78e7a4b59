// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/SubscriptionTable.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

namespace Engine {

bool SubscriptionTable::Add(const Framework::Task& task, const KnownEvent& event)
{
    const bool isFirst = RoutesOf(event.id).empty();
    TraceSubscriberQueue* queue = Find(&task);
    if (queue == nullptr) {
        queue = queues.emplace_back(std::make_unique<TraceSubscriberQueue>(task, *outlet)).get();
    }
    auto& subscribers = RouteOf(event).subscribers;
    const auto found =
        std::find_if(subscribers.begin(), subscribers.end(), [queue](const auto& each) { return each.queue == queue; });
    if (found != subscribers.end()) {
        ++found->count;
    } else {
        subscribers.push_back({queue, 1});
    }
    return isFirst;
}

std::vector<const KnownEvent*> SubscriptionTable::Remove(const Framework::Task* task, const KnownEvent* event)
{
    const TraceSubscriberQueue* queue = Find(task);
    if (queue == nullptr) {
        return {};
    }
    auto unused = ChangeAll([&](TraceRoute& route) {
        std::erase_if(route.subscribers, [&](TraceRoute::Subscriber& each) {
            return each.queue == queue &&
                   (event == nullptr || (event == route.event && (each.count < 2 || --each.count == 0)));
        });
    });
    RetireUnused();
    return unused;
}

void SubscriptionTable::Suspend(const Framework::Task* task, const KnownEvent& event)
{
    const TraceSubscriberQueue* queue = Find(task);
    ChangeAll([&](TraceRoute& route) {
        for (TraceRoute::Subscriber& each : route.subscribers) {
            if (each.queue == queue && route.event == &event && each.count > 0) {
                --each.count;
                hasSuspended = hasSuspended || each.count == 0;
            }
        }
    });
}

std::vector<const KnownEvent*> SubscriptionTable::EndSuspended(
    const std::function<bool(const TraceSubscriberQueue&)>& isOver)
{
    hasSuspended = false;
    auto unused = ChangeAll([&](TraceRoute& route) {
        std::erase_if(route.subscribers, [&](const TraceRoute::Subscriber& each) {
            const bool ends = each.count == 0 && isOver(*each.queue);
            hasSuspended = hasSuspended || (each.count == 0 && !ends);
            return ends;
        });
    });
    RetireUnused();
    return unused;
}

// The queues of tasks that are subscribed to nothing any more.
void SubscriptionTable::RetireUnused()
{
    std::set<const TraceSubscriberQueue*> used;
    for (const auto& sameId : routes) {
        for (const TraceRoute& route : sameId) {
            for (const TraceRoute::Subscriber& each : route.subscribers) {
                used.insert(each.queue);
            }
        }
    }
    const auto unused = std::stable_partition(queues.begin(), queues.end(),
                                              [&used](const auto& each) { return used.contains(each.get()); });
    std::move(unused, queues.end(), std::back_inserter(retired));
    queues.erase(unused, queues.end());
}

bool SubscriptionTable::Observe(const KnownEvent& event)
{
    const bool isFirst = RoutesOf(event.id).empty();
    RouteOf(event).isObserved = true;
    return isFirst;
}

std::vector<const KnownEvent*> SubscriptionTable::StopObserving()
{
    return ChangeAll([](TraceRoute& route) { route.isObserved = false; });
}

// Applies `change` to every route, drops those that are unused then, and returns an event for each id that has none.
template <class Change>
std::vector<const KnownEvent*> SubscriptionTable::ChangeAll(Change change)
{
    std::vector<const KnownEvent*> unused;
    for (auto& sameId : routes) {
        if (sameId.empty()) {
            continue;
        }
        const KnownEvent* event = sameId.front().event;
        std::for_each(sameId.begin(), sameId.end(), change);
        std::erase_if(sameId, [](const TraceRoute& route) { return !route.isObserved && route.subscribers.empty(); });
        if (sameId.empty()) {
            unused.push_back(event);
        }
    }
    return unused;
}

std::vector<const KnownEvent*> SubscriptionTable::Events() const
{
    std::vector<const KnownEvent*> events;
    for (const auto& sameId : routes) {
        for (const TraceRoute& route : sameId) {
            const bool isSubscribed = std::any_of(route.subscribers.begin(), route.subscribers.end(),
                                                  [](const TraceRoute::Subscriber& each) { return each.count > 0; });
            if (isSubscribed || route.isObserved) {
                events.push_back(route.event);
            }
        }
    }
    return events;
}

TraceSubscriberQueue* SubscriptionTable::Find(const Framework::Task* task) const
{
    const auto found =
        std::find_if(queues.begin(), queues.end(), [task](const auto& each) { return each->Task() == task; });
    return found != queues.end() ? found->get() : nullptr;
}

void SubscriptionTable::FlushQueues()
{
    for (const auto& queue : queues) {
        queue->Flush();
    }
    std::erase_if(retired, [](const auto& queue) {
        queue->Flush();
        return queue->Waiting() == 0;
    });
}

TraceRoute& SubscriptionTable::RouteOf(const KnownEvent& event)
{
    if (event.id >= routes.size()) {
        routes.resize(event.id + std::size_t{1});
        syscalls.resize(routes.size());
    }
    syscalls[event.id] = event.IsSyscall();
    auto& sameId = routes[event.id];
    const auto found =
        std::find_if(sameId.begin(), sameId.end(), [&event](const TraceRoute& each) { return each.event == &event; });
    return found != sameId.end() ? *found : sameId.emplace_back(TraceRoute{&event, event.IsSyscall(), false, {}});
}

}  // namespace Engine
