// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventDelivery.h"

#include <algorithm>
#include <span>

#include "host/ftrace/Log.h"

namespace Engine {
namespace {

// Where a system call comes from when there is no observer to ask: all are treated as one container's.
constexpr TraceObserver::Origin unknownOrigin = 1;

// Carries a message that has other owners too through an interface that takes ownership.
class SharedMessage final : public Framework::Message {
public:
    explicit SharedMessage(std::shared_ptr<Framework::Message> inner) : inner(std::move(inner)) {}

    int MessageHandle(void* target) override { return inner->MessageHandle(target); }
    unsigned long EventCount() const override { return inner->EventCount(); }

private:
    std::shared_ptr<Framework::Message> inner;
};

}  // namespace

void EventDelivery::OnRecord(const RawRecord& record)
{
    ++outlet->counts->read;
    if (record.afterLoss) {
        ReportLoss();
    }
    const std::vector<TraceRoute>& routes = table->RoutesOf(record.id);
    for (const TraceRoute& route : routes) {
        Deliver(route, record);
    }
    if (routes.empty()) {
        DropUnwanted(record);
    }
}

// Recorded before its last subscriber withdrew.
void EventDelivery::DropUnwanted(const RawRecord& record)
{
    const std::uint64_t calls = table->WasSyscall(record.id) ? 1 : 0;
    ++outlet->counts->unwanted;
    outlet->counts->callsRead += calls;
    outlet->counts->callsRefused += calls;
}

void EventDelivery::Deliver(const TraceRoute& route, const RawRecord& record)
{
    const EventKind& kind = route.event->kind;
    const TraceObserver::Origin origin = observer == nullptr ? unknownOrigin : AskObserver(route, record);
    if (!route.isSyscall) {
        for (const TraceRoute::Subscriber& subscriber : route.subscribers) {
            subscriber.queue->AddEvent(kind, record);
        }
        return;
    }
    ++outlet->counts->callsRead;
    if (origin == TraceObserver::notAdmitted) {
        ++outlet->counts->notContainer;
        return;
    }
    for (const TraceRoute::Subscriber& subscriber : route.subscribers) {
        subscriber.queue->AddCall(kind, record, origin);
    }
}

TraceObserver::Origin EventDelivery::AskObserver(const TraceRoute& route, const RawRecord& record)
{
    TraceObserver::Origin origin = unknownOrigin;
    const FtraceMessage event{route.event->kind, record.data, record.size, std::chrono::nanoseconds{record.when}};
    Guarded([&] {
        if (route.isObserved) {
            observed = &route;
            observer->OnEvent(event, record.source, *this);
        }
        if (route.isSyscall && !route.subscribers.empty()) {
            const auto tid = static_cast<int>(event.get_number("common_pid"));
            origin = observer->AdmitSyscall(tid, record.source, event, *this);
        }
    });
    observed = nullptr;
    return origin;
}

bool EventDelivery::GetsEvent(const Framework::Task& task) const
{
    return observed != nullptr &&
           std::any_of(observed->subscribers.begin(), observed->subscribers.end(),
                       [&task](const TraceRoute::Subscriber& each) { return each.queue->Task() == &task; });
}

void EventDelivery::SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message)
{
    if (TraceSubscriberQueue* queue = table->Find(&target); queue != nullptr) {
        queue->AddMessage(std::move(message));
    } else {
        outlet->send(target.name(), std::make_unique<SharedMessage>(std::move(message)));
    }
}

void EventDelivery::EndRound(std::chrono::nanoseconds until)
{
    if (observer != nullptr) {
        Guarded([&] { observer->OnRound(until, *this); });
    }
    table->FlushQueues();
    // The observer may take back what it has told of a process, so what is about a process follows its report at once.
    const auto reportActive = [this](std::span<const int> pids) {
        if (observer != nullptr) {
            Guarded([&] { observer->OnActivity(pids, *this); });
            table->FlushQueues();
        }
    };
    for (; !barriers.empty() && barriers.front()->When() <= until; barriers.pop_front()) {
        barriers.front()->OnReached(reportActive, outlet->send);
    }
}

void EventDelivery::ReportLoss()
{
    if (observer != nullptr) {
        Guarded([&] { observer->OnLoss(*this); });
    }
}

template <class Call>
void EventDelivery::Guarded(Call call)
{
    try {
        call();
    } catch (...) {
        if (const auto times = observerFailures.Occurred(SDK::RepeatedReport::Clock::now()); times != 0) {
            TraceLog::Warning("the observer of trace events failed, going on (%?u times)", times);
        }
    }
}

}  // namespace Engine
