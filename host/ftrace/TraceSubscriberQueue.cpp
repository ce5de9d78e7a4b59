// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceSubscriberQueue.h"

#include <algorithm>
#include <functional>

namespace Engine {
namespace {

// Of 64 KiB each: so many in a storm, so many when it is over.
constexpr std::size_t maxSpare = 64;
constexpr std::size_t keptSpare = 4;

constexpr std::uint64_t countingBegins = 4;  // at one part in so many of the room
constexpr std::uint64_t containerShare = 2;
constexpr std::uint64_t kindShare = 4;  // of the container's

}  // namespace

TraceSubscriberQueue::TraceSubscriberQueue(const Framework::Task& task, const TraceOutlet& outlet)
    : task(&task), name(task.name()), outlet(&outlet)
{
}

void TraceSubscriberQueue::Append(const EventKind& kind, const RawRecord& record, bool isCall)
{
    if (batch != nullptr && batch->Add(kind, record, isCall)) {
        return;
    }
    if (!Begin().Add(kind, record, isCall)) {  // it is larger than a batch
        ++outlet->counts->lostQueue;
        outlet->counts->callsRefused += isCall ? 1 : 0;
    }
}

void TraceSubscriberQueue::AddMessage(std::shared_ptr<Framework::Message> message)
{
    if (batch == nullptr || !batch->Add(message)) {
        Begin().Add(std::move(message));
    }
}

EventBatch& TraceSubscriberQueue::Begin()
{
    Flush();
    if (spare.empty()) {
        batch = std::make_shared<EventBatch>(outlet->kinds);
    } else {
        batch = std::move(spare.back());
        spare.pop_back();
    }
    return *batch;
}

void TraceSubscriberQueue::Flush()
{
    if (batch != nullptr) {
        Send();
    }
    TakeBack();
    JudgeBacklog();
    if (waiting == 0 && spare.size() > keptSpare) {
        spare.pop_back();  // one in a round: where storms come and go, what the next one needs is there
    }
}

void TraceSubscriberQueue::Send()
{
    const Sending result = outlet->send(name, EventBatch::Lend(batch));
    refused = result != Sending::Accepted;
    if (result == Sending::Accepted) {
        waiting += batch->Events();
        sent.push_back(std::move(batch));
        return;
    }
    CountUndelivered(result == Sending::Gone ? outlet->counts->unwanted : outlet->counts->lostQueue, *batch);
    KeepSpare(std::move(batch));
}

void TraceSubscriberQueue::TakeBack()
{
    for (; !sent.empty() && sent.front()->IsBack(); sent.pop_front()) {
        const EventBatch& done = *sent.front();
        waiting -= done.Events();
        if (done.WasHandled()) {
            NoteCost(done);
        } else {  // the subscriber has stopped with it in its queue
            CountUndelivered(outlet->counts->unwanted, done);
        }
        KeepSpare(std::move(sent.front()));
    }
}

void TraceSubscriberQueue::CountUndelivered(std::uint64_t& count, const EventBatch& batch)
{
    count += batch.Events();
    outlet->counts->callsRefused += batch.Calls();
}

void TraceSubscriberQueue::KeepSpare(std::shared_ptr<EventBatch> done)
{
    if (spare.size() < maxSpare) {
        done->Clear();
        spare.push_back(std::move(done));
    }
}

void TraceSubscriberQueue::NoteCost(const EventBatch& batch)
{
    constexpr std::uint64_t weight = 4;  // of the past against the new value
    const auto now =
        static_cast<std::uint64_t>(batch.HandlingTime().count()) / std::max<std::uint64_t>(batch.Events(), 1);
    costOfEvent = (costOfEvent * (weight - 1) + now) / weight;
}

void TraceSubscriberQueue::JudgeBacklog()
{
    const std::uint64_t affordable = static_cast<std::uint64_t>(std::chrono::nanoseconds{patience}.count()) /
                                     std::max<std::uint64_t>(costOfEvent, 1);
    const std::uint64_t room = std::clamp(affordable, leastRoom, mostRoom);
    share = room / containerShare;
    if (waiting >= room) {
        stage = Stage::Excluding;
    } else if (waiting >= room / countingBegins) {
        stage = Stage::Counting;
    } else if (stage != Stage::Calm) {
        stage = Stage::Calm;
        taken.clear();
    }
}

// Whether the container, and this kind of its events, has something left of its share.
bool TraceSubscriberQueue::TakesFromShare(std::uint64_t origin, const EventKind& kind)
{
    std::uint64_t& ofKind = taken[origin ^ (std::hash<const EventKind*>{}(&kind) * 0x9E3779B97F4A7C15ULL)];
    if (stage == Stage::Excluding) {
        // What a container sent until then is not held against its other calls.
        std::uint64_t& ofContainer = taken[origin];
        if (ofContainer >= share || ofKind >= share / kindShare) {
            return false;
        }
        ++ofContainer;
    }
    ++ofKind;
    return true;
}

}  // namespace Engine
