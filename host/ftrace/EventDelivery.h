// SPDX-License-Identifier: Apache-2.0
// What becomes of an event once it is its turn: the observer sees it, then its subscribers' batches take it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>

#include "host/ftrace/MessageSender.h"
#include "host/ftrace/SubscriptionTable.h"
#include "host/ftrace/TraceFollower.h"
#include "host/ftrace/TraceMerger.h"
#include "host/ftrace/TraceObserver.h"
#include "host/sdk/RepeatedReport.h"

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
    // `kinds`: owner of the kinds of all events that the table will hold.
    // `filter`: not owned, null for none.
    EventDelivery(const SubscriptionTable& table, std::shared_ptr<const void> kinds, MessageSender sender,
                  SyscallFilter* filter = nullptr);
    virtual ~EventDelivery() = default;

    void OnRecord(const RawRecord& record) override;
    void SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message) override;
    SyscallFilter* Filter() override { return filter; }

    // Takes what follows the events until some time. Their times do not decrease.
    void Follow(std::shared_ptr<TraceFollower> follower) { followers.push_back(std::move(follower)); }
    bool IsFollowed() const { return !followers.empty(); }

    // Ends a round: everything before `observed` has come by. Tells the observer, sends the batches that have events,
    // then what follows them.
    void EndRound(std::chrono::nanoseconds observed);

    // Not owned; null: none, and every system call is admitted.
    void SetObserver(TraceObserver* next) { observer = next; }
    TraceObserver* Observer() const { return observer; }

    // Tells the observer, if there is one.
    void ReportLoss();

    DeliverySums TakeSums();

private:
    void Deliver(const TraceRoute& route, const RawRecord& record);
    void DropUnwanted(const RawRecord& record);
    TraceObserver::Origin AskObserver(const TraceRoute& route, const RawRecord& record);
    void Append(TraceTarget& target, const TraceRoute& route, const RawRecord& record);
    EventBatch& Begin(TraceTarget& target);
    void Send(TraceTarget& target);
    void Flush();
    template <class Call>
    void Guarded(Call call);

    const SubscriptionTable* table;
    std::shared_ptr<const void> kinds;
    MessageSender sender;
    SyscallFilter* filter;
    TraceObserver* observer = nullptr;
    std::deque<std::shared_ptr<TraceFollower>> followers;
    DeliverySums sums;
    EventBatch::Unhandled unhandled = EventBatch::AllUnhandled();  // as far as it is in the sums
    std::uint64_t refused = 0;  // events that were not accepted when they were sent, not in the sums yet
    SDK::RepeatedReport observerFailures;
};

}  // namespace Engine
