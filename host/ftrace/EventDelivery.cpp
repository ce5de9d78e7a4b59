// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventDelivery.h"

#include <chrono>
#include <utility>

#include "host/ftrace/Log.h"

namespace Engine {

namespace {

// Where a system call comes from when nobody is asked: all are treated as one container's.
constexpr TraceObserver::Origin unknownOrigin = 1;

// Carries a message that others hold too through an interface that takes ownership.
class SharedMessage final : public Framework::Message {
public:
    explicit SharedMessage(std::shared_ptr<Framework::Message> inner) : inner(std::move(inner)) {}

    int MessageHandle(void* target) override { return inner->MessageHandle(target); }
    unsigned long EventCount() const override { return inner->EventCount(); }

private:
    std::shared_ptr<Framework::Message> inner;
};

}  // namespace

EventDelivery::EventDelivery(const SubscriptionTable& table, std::shared_ptr<const void> kinds, MessageSender sender,
                             SyscallFilter* filter)
    : table(&table), kinds(std::move(kinds)), sender(std::move(sender)), filter(filter)
{
}

void EventDelivery::OnRecord(const RawRecord& record)
{
    ++sums.read;
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
    ++sums.unwanted;
    sums.callsRead += calls;
    sums.callsRefused += calls;
}

void EventDelivery::Deliver(const TraceRoute& route, const RawRecord& record)
{
    sums.callsRead += route.isSyscall ? 1 : 0;
    TraceObserver::Origin origin = unknownOrigin;
    if (observer != nullptr) {
        origin = AskObserver(route, record);
        if (origin == TraceObserver::notAdmitted) {
            ++sums.notContainer;
            return;
        }
    }
    for (const TraceRoute::Subscriber& subscriber : route.subscribers) {
        // Only system calls: a fork or an exit that is left out would falsify what is known about later events.
        if (!route.isSyscall || subscriber.target->guard.Admit(origin, route.event->kind)) {
            Append(*subscriber.target, route, record);
        } else {
            ++sums.shed;
        }
    }
}

TraceObserver::Origin EventDelivery::AskObserver(const TraceRoute& route, const RawRecord& record)
{
    TraceObserver::Origin origin = unknownOrigin;
    const FtraceMessage event{route.event->kind, record.data, record.size, std::chrono::nanoseconds{record.when}};
    Guarded([&] {
        if (route.isObserved) {
            observer->OnEvent(event, *this);
        }
        if (route.isSyscall && !route.subscribers.empty()) {
            const auto tid = static_cast<int>(event.get_number("common_pid"));
            origin = observer->AdmitSyscall(tid, record.process, event, *this);
        }
    });
    return origin;
}

void EventDelivery::Append(TraceTarget& target, const TraceRoute& route, const RawRecord& record)
{
    const EventKind& kind = route.event->kind;
    if (target.batch != nullptr && target.batch->Add(kind, record.data, record.size, record.when, route.isSyscall)) {
        return;
    }
    // An empty batch has room for every record that fits a page of up to 60 KiB; the kernel's have 4.
    if (!Begin(target).Add(kind, record.data, record.size, record.when, route.isSyscall)) {
        ++sums.lostQueue;
        sums.callsRefused += route.isSyscall ? 1 : 0;
    }
}

EventBatch& EventDelivery::Begin(TraceTarget& target)
{
    Send(target);
    target.batch = std::make_unique<EventBatch>(kinds, target.backlog);
    return *target.batch;
}

void EventDelivery::Send(TraceTarget& target)
{
    if (target.batch == nullptr) {
        return;
    }
    const unsigned long events = target.batch->TraceEventCount();
    target.batch->MarkSent();
    const Sending result = sender(target.name, std::move(target.batch));
    target.refused = result != Sending::Accepted;
    if (result != Sending::Accepted) {
        refused += events;
        (result == Sending::Gone ? sums.unwanted : sums.lostQueue) += events;
    }
    target.guard.Update(*target.backlog);
}

void EventDelivery::SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message)
{
    TraceTarget* subscribed = table->Find(&target);
    if (subscribed == nullptr) {
        sender(target.name(), std::make_unique<SharedMessage>(std::move(message)));
        return;
    }
    if (subscribed->batch == nullptr || !subscribed->batch->Add(message)) {
        Begin(*subscribed).Add(std::move(message));
    }
}

void EventDelivery::EndRound(std::chrono::nanoseconds observed)
{
    std::size_t due = 0;
    for (; due < followers.size() && followers[due]->When() <= observed; ++due) {
        followers[due]->OnObserved();
    }
    if (observer != nullptr) {
        Guarded([&] { observer->OnRound(observed, *this); });
    }
    Flush();
    for (; due > 0; --due) {
        followers.front()->OnFlushed(sender);
        followers.pop_front();
    }
}

void EventDelivery::Flush()
{
    for (const auto& target : table->Targets()) {
        Send(*target);
        target->guard.Update(*target->backlog);  // it may have caught up without a new batch
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

DeliverySums EventDelivery::TakeSums()
{
    // Those that were not accepted are in the sums already; the others were, by a subscriber that ended after that.
    const EventBatch::Unhandled now = EventBatch::AllUnhandled();
    sums.unwanted += (now.events - unhandled.events) - std::exchange(refused, 0);
    sums.callsRefused += now.calls - unhandled.calls;
    unhandled = now;
    return std::exchange(sums, {});
}

}  // namespace Engine
