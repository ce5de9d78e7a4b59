// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/SubscriptionTable.h"

#include <algorithm>

namespace Engine {
namespace {

auto FindSubscriber(TraceRoute& route, const TraceTarget* target)
{
    return std::find_if(route.subscribers.begin(), route.subscribers.end(),
                        [target](const TraceRoute::Subscriber& each) { return each.target == target; });
}

bool IsUnused(const TraceRoute& route)
{
    return !route.isObserved && route.subscribers.empty();
}

}  // namespace

bool SubscriptionTable::Add(const Framework::Task& task, const KnownEvent& event)
{
    const bool isFirst = RoutesOf(event.id).empty();
    TraceTarget& target = TargetOf(task);
    TraceRoute& route = RouteOf(event);
    if (const auto found = FindSubscriber(route, &target); found != route.subscribers.end()) {
        ++found->count;
    } else {
        route.subscribers.push_back({&target, 1});
    }
    return isFirst;
}

bool SubscriptionTable::Remove(const Framework::Task& task, const KnownEvent& event)
{
    TraceTarget* target = Find(&task);
    if (target == nullptr || RoutesOf(event.id).empty()) {
        return false;
    }
    TraceRoute& route = RouteOf(event);
    if (const auto found = FindSubscriber(route, target); found != route.subscribers.end() && --found->count == 0) {
        route.subscribers.erase(found);
    }
    DropUnused(event);
    if (!HasRoutes(*target)) {
        DropTarget(*target);
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
    const TraceTarget* target = Find(task);
    if (target == nullptr) {
        return {};
    }
    auto unused = ChangeAll([target](TraceRoute& route) {
        std::erase_if(route.subscribers,
                      [target](const TraceRoute::Subscriber& each) { return each.target == target; });
    });
    DropTarget(*target);
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

TraceTarget* SubscriptionTable::Find(const Framework::Task* task) const
{
    const auto found =
        std::find_if(targets.begin(), targets.end(), [task](const auto& each) { return each->task == task; });
    return found != targets.end() ? found->get() : nullptr;
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
    if (found != sameId.end()) {
        return *found;
    }
    return sameId.emplace_back(TraceRoute{&event, event.IsSyscall(), false, {}});
}

TraceTarget& SubscriptionTable::TargetOf(const Framework::Task& task)
{
    if (TraceTarget* target = Find(&task); target != nullptr) {
        return *target;
    }
    return *targets.emplace_back(std::make_unique<TraceTarget>(task));
}

void SubscriptionTable::DropUnused(const KnownEvent& event)
{
    std::erase_if(routes[event.id], IsUnused);
}

bool SubscriptionTable::HasRoutes(const TraceTarget& target) const
{
    const auto leadsThere = [&target](const TraceRoute::Subscriber& each) {
        return each.target == &target;
    };
    return std::any_of(routes.begin(), routes.end(), [&](const auto& sameId) {
        return std::any_of(sameId.begin(), sameId.end(), [&](const TraceRoute& route) {
            return std::any_of(route.subscribers.begin(), route.subscribers.end(), leadsThere);
        });
    });
}

void SubscriptionTable::DropTarget(const TraceTarget& target)
{
    std::erase_if(targets, [&target](const auto& each) { return each.get() == &target; });
}

}  // namespace Engine
