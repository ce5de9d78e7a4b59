// SPDX-License-Identifier: Apache-2.0
// The records of one CPU's buffer, one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "host/ftrace/PageSource.h"

struct kbuffer;

namespace Engine {

// A record where it lies in its page: valid until its stream moves on.
struct RawRecord {
    const std::byte* data = nullptr;
    std::uint32_t size = 0;
    std::uint16_t id = 0;    // the event's id, as its format file gives it
    bool afterLoss = false;  // records of this CPU were lost before this one
    std::uint64_t when = 0;  // nanoseconds on the trace clock
};

// Owns its pages. Thread: one at a time. A page that contradicts itself is given up at that place, counted as damaged,
// and never read outside its bytes.
class CpuStream {
public:
    // `pageBytes`: what the source gives at most. `maxPages`: how many pages wait at most, at least 2. Throws
    // std::bad_alloc only.
    CpuStream(std::unique_ptr<PageSource> source, std::size_t pageBytes, std::size_t maxPages);

    // Reads until the source has nothing or `maxPages` wait.
    void Fill();

    // Records earlier than this have all been read: the maximum when Fill emptied the source, else about the time at
    // which the last waiting page began.
    std::uint64_t Horizon() const;

    // The oldest record that was read and not passed; data is null when there is none.
    const RawRecord& Head() const { return head; }
    void Advance();

    // Pages that were damaged or that said that an unknown number of records is missing. Reset by the call.
    std::uint64_t TakeLostPages();

private:
    using Page = std::unique_ptr<std::byte[]>;
    struct BufferDeleter {
        void operator()(kbuffer* buffer) const;
    };

    bool ReadOne();
    bool Plausible(const std::byte* page, std::size_t bytes) const;
    void LoadNext();
    bool LoadFront();
    bool Take(const std::byte* record, std::uint64_t when);
    void DropFront();

    std::unique_ptr<PageSource> source;
    std::size_t pageBytes;
    std::size_t maxPages;
    std::unique_ptr<kbuffer, BufferDeleter> decoder;
    std::deque<Page> waiting;  // the front one is loaded in the decoder while it has records left
    std::vector<Page> spare;
    const std::byte* end = nullptr;  // of the front page's records
    bool loaded = false;
    bool drained = false;
    RawRecord head;
    std::uint64_t lostPages = 0;
};

}  // namespace Engine
