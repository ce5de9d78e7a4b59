// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventBatch.h"

#include <cstring>
#include <numeric>

#include "host/ftrace/EventKind.h"
#include "host/ftrace/Log.h"
#include "host/ftrace/SyscallProbeLayout.h"
#include "host/sdk/Counters.h"
#include "host/sdk/TraceTime.h"

namespace Engine {

namespace {

class Delivered final : public SDK::DeliveredEvent {
public:
    virtual ~Delivered() = default;

    // `nameOfCaller`: of CE_NAME_BYTES; null: not told.
    void MoveTo(const FtraceMessage& next, const std::byte* record, const std::byte* nameOfCaller)
    {
        message = &next;
        entry = record;
        callerName = reinterpret_cast<const char*>(nameOfCaller);
    }

    const std::string& Name() const override { return message->Kind().Name(); }
    std::vector<std::pair<std::string, std::int64_t>> Numbers() const override
    {
        std::vector<std::pair<std::string, std::int64_t>> numbers;
        for (const EventKind::Field& field : message->Kind().Fields()) {
            if (field.shape == EventKind::Shape::Number && !field.name.starts_with("common_") &&
                field.name != "__syscall_nr") {
                numbers.emplace_back(field.name, message->get_number(field.name));
            }
        }
        return numbers;
    }
    std::optional<Caller> MadeBy() const override
    {
        if (callerName == nullptr) {
            return std::nullopt;
        }
        CeTraceEntry call;
        std::memcpy(&call, entry, sizeof call);
        return Caller{call.head.thread, {callerName, ::strnlen(callerName, CE_NAME_BYTES)}, call.parent};
    }

private:
    const FtraceMessage* message = nullptr;
    const std::byte* entry = nullptr;
    const char* callerName = nullptr;
};

}  // namespace

// What the subscriber's queue holds of a batch.
class EventBatch::Loan final : public Framework::Message {
public:
    explicit Loan(std::shared_ptr<EventBatch> lent) : batch(std::move(lent)) { batch->lent = true; }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;
    ~Loan() override { batch->lent.store(false, std::memory_order_release); }

    int MessageHandle(void* target) override { return batch->Handle(target); }

    // Of the events and the messages together.
    unsigned long EventCount() const override
    {
        return std::accumulate(
            batch->messages.begin(), batch->messages.end(), batch->count,
            [](unsigned long sum, const Between& between) { return sum + between.message->EventCount(); });
    }

private:
    std::shared_ptr<EventBatch> batch;
};

std::unique_ptr<Framework::Message> EventBatch::Lend(std::shared_ptr<EventBatch> batch)
{
    return std::make_unique<Loan>(std::move(batch));
}

bool EventBatch::Add(const EventKind& kind, const RawRecord& record, bool isCall)
{
    const char* const name = record.source.callerName;
    const std::uint32_t nameBytes = name != nullptr ? CE_NAME_BYTES : 0;
    const std::size_t stride = Stride(record.size + nameBytes);
    if (count == maxEvents || stride > events.size() - used) {
        return false;
    }
    const Entry entry{&kind, record.when, record.size, nameBytes};
    std::byte* to = events.data() + used;
    std::memcpy(to, &entry, sizeof entry);
    std::memcpy(to + sizeof entry, record.data, record.size);
    if (name != nullptr) {
        std::memcpy(to + sizeof entry + record.size, name, nameBytes);
    }
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

void EventBatch::Clear()
{
    used = 0;
    count = 0;
    calls = 0;
    messages.clear();
    handled = false;
}

int EventBatch::Handle(void* target)
{
    auto* receiver =
        target == nullptr
            ? nullptr
            : dynamic_cast<AbstructMessage<FtraceMessage>::Receiver*>(static_cast<Framework::Task*>(target));
    if (receiver == nullptr) {
        return -1;
    }
    static SDK::Counters::Counter& delivered = SDK::Counters::Get(SDK::CounterName::traceDelivered);
    static SDK::Counters::Counter& callsDelivered = SDK::Counters::Get(SDK::CounterName::callsDelivered);
    const auto begin = std::chrono::steady_clock::now();
    HandEach(target, *receiver);
    handled = true;
    handlingTime = std::chrono::steady_clock::now() - begin;
    delivered.fetch_add(count, std::memory_order_relaxed);
    callsDelivered.fetch_add(calls, std::memory_order_relaxed);
    return 0;
}

// What the receiver throws ends that event or message only; it is logged once for the batch.
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
    Delivered delivered;
    for (std::size_t at = from; at < to;) {
        Entry entry;
        std::memcpy(&entry, events.data() + at, sizeof entry);
        const std::byte* record = events.data() + at + sizeof entry;
        const std::chrono::nanoseconds when{entry.when};
        const FtraceMessage message(*entry.kind, record, entry.size, when);
        delivered.MoveTo(message, record, entry.nameBytes != 0 ? record + entry.size : nullptr);
        time.MoveTo(when, &delivered);
        try {
            receiver.Receive(message);
        } catch (...) {
            ++failures;
        }
        at += Stride(entry.size + entry.nameBytes);
    }
    return failures;
}

}  // namespace Engine
