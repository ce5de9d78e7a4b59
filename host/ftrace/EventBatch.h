// SPDX-License-Identifier: Apache-2.0
// Many trace events, and messages between them, that travel as one item of a subscriber's queue.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "framework/Message.h"
#include "host/ftrace/RecordStream.h"
#include "messages/FtraceMessages.h"

namespace Engine {

class EventKind;

// Holds copies of its records; of the kinds only pointers, which `kinds` keeps valid. Filled by the trace task, then
// lent to the subscriber, then filled again: in steady state nothing is allocated for events.
// Thread: the trace task's; while it is lent, only IsBack may be called there.
class EventBatch {
public:
    static constexpr unsigned long maxEvents = 512;
    static constexpr std::size_t maxBytes = 64 * 1024UL;  // records, and 24 bytes for each

    // `kinds`: owner of the kinds of all events that will be added.
    explicit EventBatch(std::shared_ptr<const void> kinds) : kinds(std::move(kinds)) {}

    // Copies an event. False when it does not fit any more. An empty batch has room for every record that fits a page
    // of up to 60 KiB; the kernel's have 4.
    bool Add(const EventKind& kind, const RawRecord& record, bool isCall);

    // Puts a message behind the events added so far. False when there are too many.
    bool Add(std::shared_ptr<Framework::Message> message);

    // A message that hands the batch's content to the task that handles it: every event to the task's Receiver of
    // FtraceMessage, oldest first, each under its own time (SDK::TraceTime), and the messages between them, under none.
    // Its result is -1 when the task takes no trace events. The batch is back when the message has ended, handled or
    // not.
    static std::unique_ptr<Framework::Message> Lend(std::shared_ptr<EventBatch> batch);
    bool IsBack() const { return !lent.load(std::memory_order_acquire); }

    // Whether a receiver got the events, and how long it took for all of them. Of a batch that is back.
    bool WasHandled() const { return handled; }
    std::chrono::nanoseconds HandlingTime() const { return handlingTime; }

    // The trace events, and the system calls among them.
    unsigned long Events() const { return count; }
    unsigned long Calls() const { return calls; }

    // As new.
    void Clear();

private:
    class Loan;
    struct Entry {
        const EventKind* kind;
        std::uint64_t when;
        std::uint32_t size;       // of the record, which follows
        std::uint32_t nameBytes;  // of the caller's name, which follows the record; 0: not told
    };
    struct Between {
        std::size_t at;  // where the event before the message ends
        std::shared_ptr<Framework::Message> message;
    };

    // From one entry to the next: the record is padded so that the entry after it is aligned.
    static std::size_t Stride(std::size_t size)
    {
        return (sizeof(Entry) + size + alignof(Entry) - 1) / alignof(Entry) * alignof(Entry);
    }

    int Handle(void* target);
    void HandEach(void* target, AbstructMessage<FtraceMessage>::Receiver& receiver);
    std::size_t HandEvents(std::size_t from, std::size_t to, AbstructMessage<FtraceMessage>::Receiver& receiver) const;

    std::shared_ptr<const void> kinds;
    std::size_t used = 0;
    unsigned long count = 0;
    unsigned long calls = 0;
    std::vector<Between> messages;
    std::atomic<bool> lent{false};
    bool handled = false;
    std::chrono::nanoseconds handlingTime{0};
    alignas(Entry) std::array<std::byte, maxBytes> events;  // not initialised: 64 KiB of zeros for each batch
};

}  // namespace Engine
