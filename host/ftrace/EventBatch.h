// SPDX-License-Identifier: Apache-2.0
// Many trace events, and messages between them, as one message.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "framework/Message.h"
#include "host/ftrace/Backlog.h"
#include "messages/FtraceMessages.h"

namespace Engine {

class EventKind;

// Filled by the trace task, then sent, then read by the receiver: never by two threads at once. Holds copies of its
// records; of the kinds only pointers, which `kinds` keeps valid. Made with `new`; the memory comes from a store of
// used batches, so that in steady state nothing is allocated for events.
class EventBatch final : public Framework::Message {
public:
    static constexpr unsigned long maxEvents = 512;
    static constexpr std::size_t maxBytes = 64 * 1024UL;  // records, and 24 bytes for each

    // `kinds`: owner of the kinds of all events that will be added.
    // `backlog`: told of what becomes of the batch once it is sent.
    EventBatch(std::shared_ptr<const void> kinds, std::shared_ptr<Backlog> backlog)
        : kinds(std::move(kinds)), backlog(std::move(backlog))
    {
    }
    EventBatch(const EventBatch&) = delete;
    EventBatch& operator=(const EventBatch&) = delete;
    ~EventBatch() override;

    // Once, when it is full or its round is over; before it goes to the subscriber's queue.
    void MarkSent();

    // Copies an event. False when it does not fit any more. `when`: nanoseconds on the trace clock.
    bool Add(const EventKind& kind, const std::byte* record, std::uint32_t size, std::uint64_t when, bool isCall);

    // Puts a message behind the events added so far. False when there are too many. It ends with its handling, or
    // unhandled with the batch.
    bool Add(std::shared_ptr<Framework::Message> message);

    // Hands every event to the target's Receiver of FtraceMessage, oldest first, each under its own time
    // (SDK::TraceTime), and has the messages handled, under none. What the receiver throws ends that event or message
    // only; it is logged once for the batch. Returns 0, or -1 when the target takes no trace events.
    int MessageHandle(void* target) override;

    // Of the events and the messages together.
    unsigned long EventCount() const override;

    // The trace events alone, and the system calls among them.
    unsigned long TraceEventCount() const { return count; }
    unsigned long CallCount() const { return calls; }

    // Events of batches that ceased to be without having been handled, since the process began: those that a queue
    // refused, and those whose receiver ended. Any thread.
    struct Unhandled {
        std::uint64_t events;
        std::uint64_t calls;
    };
    static Unhandled AllUnhandled();

    // Any thread.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory) noexcept;

private:
    struct Entry {
        const EventKind* kind;
        std::uint64_t when;
        std::uint32_t size;  // of the record, which follows
    };

    // From one entry to the next: the record is padded so that the entry after it is aligned.
    static std::size_t Stride(std::uint32_t size)
    {
        return (sizeof(Entry) + size + alignof(Entry) - 1) / alignof(Entry) * alignof(Entry);
    }

    // A message, and where the event before it ends.
    struct Between {
        std::size_t at;
        std::shared_ptr<Framework::Message> message;
    };

    void HandEach(void* target, AbstructMessage<FtraceMessage>::Receiver& receiver);
    std::size_t HandEvents(std::size_t from, std::size_t to, AbstructMessage<FtraceMessage>::Receiver& receiver) const;

    std::shared_ptr<const void> kinds;
    std::shared_ptr<Backlog> backlog;
    bool sent = false;
    bool handled = false;
    std::size_t used = 0;
    unsigned long count = 0;
    unsigned long calls = 0;
    std::vector<Between> messages;
    alignas(Entry) std::array<std::byte, maxBytes> events;  // not initialised: 64 KiB of zeros for each batch
};

}  // namespace Engine
