// SPDX-License-Identifier: Apache-2.0
// What becomes of an event once it is its turn: the observer sees it, then its subscribers' batches take it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/ftrace/SubscriptionTable.h"
#include "host/ftrace/TraceMerger.h"
#include "host/ftrace/TraceObserver.h"

namespace Engine {

// Events since the last TakeSums. What was sent is counted as delivered where it is handled (EventBatch).
struct DeliverySums {
    std::uint64_t read = 0;
    std::uint64_t callsRead = 0;     // the system calls among them
    std::uint64_t notContainer = 0;  // system calls that the observer did not admit
    std::uint64_t shed = 0;          // left out because their container storms; once for each subscriber
    std::uint64_t lostQueue = 0;     // refused by a subscriber's queue; once for each subscriber
    std::uint64_t unwanted = 0;      // for a subscriber that had stopped, or that stopped with them in its queue
    std::uint64_t callsRefused = 0;  // the system calls among both
};

// Refers to the table. Thread: one at a time. What an observer throws is logged and ends that call only.
class EventDelivery final : public RecordSink, public TraceSequencer {
public:
    // Refused: the task's queue is full. Gone: there is no such task, or it takes no messages any more.
    enum class Sending { Accepted, Refused, Gone };

    // Takes a message to the task of that name.
    using Sender = std::function<Sending(const std::string& task, std::unique_ptr<Framework::Message> message)>;

    // `kinds`: owner of the kinds of all events that the table will hold.
    // `filter`: not owned, null for none.
    EventDelivery(const SubscriptionTable& table, std::shared_ptr<const void> kinds, Sender sender,
                  SyscallFilter* filter = nullptr);
    virtual ~EventDelivery() = default;

    void OnRecord(const RawRecord& record) override;
    void SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message) override;
    SyscallFilter* Filter() override { return filter; }

    // Sends the batches that have events. After each round.
    void Flush();

    // Not owned; null: none, and every system call is admitted.
    void SetObserver(TraceObserver* next) { observer = next; }
    TraceObserver* Observer() const { return observer; }

    // Tell the observer, if there is one.
    void ReportRound(std::chrono::nanoseconds now);
    void ReportLoss();

    DeliverySums TakeSums();

private:
    void Deliver(const TraceRoute& route, const RawRecord& record);
    TraceObserver::Origin AskObserver(const TraceRoute& route, const RawRecord& record);
    void Append(TraceTarget& target, const TraceRoute& route, const RawRecord& record);
    void Send(TraceTarget& target);
    template <class Call>
    void Guarded(Call call);

    const SubscriptionTable* table;
    std::shared_ptr<const void> kinds;
    Sender sender;
    SyscallFilter* filter;
    TraceObserver* observer = nullptr;
    DeliverySums sums;
    EventBatch::Unhandled unhandled = EventBatch::AllUnhandled();  // as far as it is in the sums
    std::uint64_t refused = 0;  // events that were not accepted when they were sent, not in the sums yet
    std::uint64_t observerFailures = 0;
};

}  // namespace Engine
