// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventBatch.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <numeric>
#include <vector>

#include "host/ftrace/Log.h"
#include "host/sdk/Counters.h"
#include "host/sdk/TraceTime.h"

namespace Engine {
namespace {

// Batches go from the trace task to a subscriber's thread, and their memory comes back from there.
class Store {
public:
    // Never destroyed: batches may wait in queues until the process ends.
    static Store& Instance()
    {
        static Store& store = *new Store;
        return store;
    }

    void* Take(std::size_t size)
    {
        {
            const std::lock_guard lock{mutex};
            if (!spare.empty()) {
                void* memory = spare.back();
                spare.pop_back();
                return memory;
            }
        }
        return ::operator new(size);
    }

    void Return(void* memory) noexcept
    {
        {
            const std::lock_guard lock{mutex};
            if (spare.size() < maxSpare) {
                spare.push_back(memory);
                return;
            }
        }
        ::operator delete(memory);
    }

private:
    // 4 MiB stay after a storm.
    static constexpr std::size_t maxSpare = 64;

    Store() { spare.reserve(maxSpare); }

    std::mutex mutex;
    std::vector<void*> spare;
};

std::atomic<std::uint64_t> unhandledEvents{0};
std::atomic<std::uint64_t> unhandledCalls{0};

}  // namespace

void* EventBatch::operator new(std::size_t size)
{
    return Store::Instance().Take(size);
}

void EventBatch::operator delete(void* memory) noexcept
{
    Store::Instance().Return(memory);
}

bool EventBatch::Add(const EventKind& kind, const std::byte* record, std::uint32_t size, std::uint64_t when,
                     bool isCall)
{
    const std::size_t stride = Stride(size);
    if (count == maxEvents || stride > events.size() - used) {
        return false;
    }
    const Entry entry{&kind, when, size};
    std::byte* to = events.data() + used;
    std::memcpy(to, &entry, sizeof entry);
    std::memcpy(to + sizeof entry, record, size);
    used += stride;
    ++count;
    calls += isCall ? 1 : 0;
    return true;
}

bool EventBatch::Add(std::shared_ptr<Framework::Message> message)
{
    if (messages.size() == maxEvents) {
        return false;
    }
    messages.push_back({used, std::move(message)});
    return true;
}

unsigned long EventBatch::EventCount() const
{
    return std::accumulate(messages.begin(), messages.end(), count, [](unsigned long sum, const Between& between) {
        return sum + between.message->EventCount();
    });
}

EventBatch::~EventBatch()
{
    if (!sent) {
        return;
    }
    backlog->Gone(count);
    if (!handled) {
        unhandledEvents.fetch_add(count, std::memory_order_relaxed);
        unhandledCalls.fetch_add(calls, std::memory_order_relaxed);
    }
}

EventBatch::Unhandled EventBatch::AllUnhandled()
{
    return {unhandledEvents.load(std::memory_order_relaxed), unhandledCalls.load(std::memory_order_relaxed)};
}

void EventBatch::MarkSent()
{
    sent = true;
    backlog->Sent(count);
}

int EventBatch::MessageHandle(void* target)
{
    auto* receiver =
        target == nullptr
            ? nullptr
            : dynamic_cast<AbstractMessage<FtraceMessage>::Receiver*>(static_cast<Framework::Task*>(target));
    if (receiver == nullptr) {
        return -1;
    }
    static SDK::Counters::Counter& delivered = SDK::Counters::Get(SDK::CounterName::traceDelivered);
    static SDK::Counters::Counter& callsDelivered = SDK::Counters::Get(SDK::CounterName::callsDelivered);
    const auto begin = std::chrono::steady_clock::now();
    handled = true;
    HandEach(target, *receiver);
    delivered.fetch_add(count, std::memory_order_relaxed);
    callsDelivered.fetch_add(calls, std::memory_order_relaxed);
    backlog->Handled(count, std::chrono::steady_clock::now() - begin);
    return 0;
}

void EventBatch::HandEach(void* target, AbstructMessage<FtraceMessage>::Receiver& receiver)
{
    std::size_t failures = 0;
    std::size_t from = 0;
    for (Between& between : messages) {
        failures += HandEvents(from, between.at, receiver);
        from = between.at;
        try {
            between.message->MessageHandle(target);
        } catch (...) {
            ++failures;
        }
        between.message.reset();
    }
    failures += HandEvents(from, used, receiver);
    if (failures != 0) {
        TraceLog::Warning("the receiver of a trace batch failed on %z of %?u events", failures, count);
    }
}

// Returns on how many the receiver failed.
std::size_t EventBatch::HandEvents(std::size_t from, std::size_t to,
                                   AbstructMessage<FtraceMessage>::Receiver& receiver) const
{
    std::size_t failures = 0;
    SDK::TraceTime::Scope time;
    for (std::size_t at = from; at < to;) {
        Entry entry;
        std::memcpy(&entry, events.data() + at, sizeof entry);
        const std::byte* record = events.data() + at + sizeof entry;
        const std::chrono::nanoseconds when{entry.when};
        time.MoveTo(when);
        try {
            receiver.Receive({*entry.kind, record, entry.size, when});
        } catch (...) {
            ++failures;
        }
        at += Stride(entry.size);
    }
    return failures;
}

}  // namespace Engine
