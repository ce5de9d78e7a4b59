// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/SubscriptionTable.h"

#include <algorithm>

namespace Engine {
namespace {

auto FindSubscriber(TraceRoute& route, const TraceSubscriberQueue* queue)
{
    return std::find_if(route.subscribers.begin(), route.subscribers.end(),
                        [queue](const TraceRoute::Subscriber& each) { return each.queue == queue; });
}

bool IsUnused(const TraceRoute& route)
{
    return !route.isObserved && route.subscribers.empty();
}

}  // namespace

bool SubscriptionTable::Add(const Framework::Task& task, const KnownEvent& event)
{
    const bool isFirst = RoutesOf(event.id).empty();
    TraceSubscriberQueue* queue = Find(&task);
    if (queue == nullptr) {
        queue = queues.emplace_back(std::make_unique<TraceSubscriberQueue>(task, *outlet)).get();
    }
    TraceRoute& route = RouteOf(event);
    if (const auto found = FindSubscriber(route, queue); found != route.subscribers.end()) {
        ++found->count;
    } else {
        route.subscribers.push_back({queue, 1});
    }
    return isFirst;
}

bool SubscriptionTable::Remove(const Framework::Task& task, const KnownEvent& event)
{
    const TraceSubscriberQueue* queue = Find(&task);
    if (queue == nullptr || RoutesOf(event.id).empty()) {
        return false;
    }
    TraceRoute& route = RouteOf(event);
    if (const auto found = FindSubscriber(route, queue); found != route.subscribers.end() && --found->count == 0) {
        route.subscribers.erase(found);
    }
    std::erase_if(routes[event.id], IsUnused);
    if (!HasRoutes(*queue)) {
        Retire(*queue);
    }
    return RoutesOf(event.id).empty();
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

std::vector<const KnownEvent*> SubscriptionTable::Forget(const Framework::Task* task)
{
    const TraceSubscriberQueue* queue = Find(task);
    if (queue == nullptr) {
        return {};
    }
    auto unused = ChangeAll([queue](TraceRoute& route) {
        std::erase_if(route.subscribers, [queue](const TraceRoute::Subscriber& each) { return each.queue == queue; });
    });
    Retire(*queue);
    return unused;
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
        std::erase_if(sameId, IsUnused);
        if (sameId.empty()) {
            unused.push_back(event);
        }
    }
    return unused;
}

std::vector<const KnownEvent*> SubscriptionTable::InUse() const
{
    std::vector<const KnownEvent*> events;
    for (const auto& sameId : routes) {
        if (!sameId.empty()) {
            events.push_back(sameId.front().event);
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

bool SubscriptionTable::HasRoutes(const TraceSubscriberQueue& queue) const
{
    const auto leadsThere = [&queue](const TraceRoute& route) {
        return std::any_of(route.subscribers.begin(), route.subscribers.end(),
                           [&queue](const TraceRoute::Subscriber& each) { return each.queue == &queue; });
    };
    return std::any_of(routes.begin(), routes.end(),
                       [&](const auto& sameId) { return std::any_of(sameId.begin(), sameId.end(), leadsThere); });
}

void SubscriptionTable::Retire(const TraceSubscriberQueue& queue)
{
    const auto found =
        std::find_if(queues.begin(), queues.end(), [&queue](const auto& each) { return each.get() == &queue; });
    retired.push_back(std::move(*found));
    queues.erase(found);
}

}  // namespace Engine
