// SPDX-License-Identifier: Apache-2.0
// What becomes of an event once it is its turn: the observer sees it, then its subscribers' queues take it.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <utility>

#include "host/ftrace/SubscriptionTable.h"
#include "host/ftrace/TraceBarrier.h"
#include "host/ftrace/TraceMerger.h"
#include "host/ftrace/TraceObserver.h"
#include "host/sdk/RepeatedReport.h"

namespace Engine {

// Refers to the table and the outlet. Thread: one at a time. What an observer throws is logged and ends that call only.
class EventDelivery final : public RecordSink, public TraceSequencer {
public:
    // `filter`: not owned, null for none.
    EventDelivery(SubscriptionTable& table, const TraceOutlet& outlet, SyscallFilter* filter = nullptr)
        : table(&table), outlet(&outlet), filter(filter)
    {
    }
    virtual ~EventDelivery() = default;

    void OnRecord(const RawRecord& record) override;
    void SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message) override;
    bool GetsEvent(const Framework::Task& task) const override;
    SyscallFilter* Filter() override { return filter; }

    // Takes what goes on behind the events until some time. Their times do not decrease.
    void Take(std::shared_ptr<TraceBarrier> barrier) { barriers.push_back(std::move(barrier)); }
    bool HasBarriers() const { return !barriers.empty(); }

    // Ends a round: everything before `until` has come by. Tells the observer, sends what the queues hold, then the
    // barriers that have been reached.
    void EndRound(std::chrono::nanoseconds until);

    // Not owned; null: none, and every system call is admitted.
    void SetObserver(TraceObserver* next) { observer = next; }
    TraceObserver* Observer() const { return observer; }

    // Tells the observer, if there is one.
    void ReportLoss();

private:
    void Deliver(const TraceRoute& route, const RawRecord& record);
    void DropUnwanted(const RawRecord& record);
    TraceObserver::Origin AskObserver(const TraceRoute& route, const RawRecord& record);
    template <class Call>
    void Guarded(Call call);

    SubscriptionTable* table;
    const TraceOutlet* outlet;
    SyscallFilter* filter;
    TraceObserver* observer = nullptr;
    std::deque<std::shared_ptr<TraceBarrier>> barriers;
    const TraceRoute* observed = nullptr;  // of the event that the observer is looking at
    SDK::RepeatedReport observerFailures;
};

}  // namespace Engine
