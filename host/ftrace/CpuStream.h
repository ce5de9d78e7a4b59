// SPDX-License-Identifier: Apache-2.0
// The records of one CPU's buffer, one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "host/ftrace/PageSource.h"
#include "host/ftrace/RecordStream.h"

struct kbuffer;

namespace Engine {

// Owns its pages. Thread: one at a time. A page that contradicts itself is given up at that place, counted as damaged,
// and never read outside its bytes.
class CpuStream final : public RecordStream {
public:
    // `pageBytes`: what the source gives at most. `maxPages`: how many pages wait at most, at least 2. Throws
    // std::bad_alloc only.
    CpuStream(std::unique_ptr<PageSource> source, std::size_t pageBytes, std::size_t maxPages);

    // Reads until the source has nothing or `maxPages` wait.
    void Fill() override;

    // Records earlier than this have all been read: the maximum when Fill emptied the source, else about the time at
    // which the last waiting page began.
    std::uint64_t Horizon() const override;
    void Advance() override;

    // Records so far, and whether there are none that were read and not passed.
    std::uint64_t Records() const { return records; }
    bool IsEmpty() const { return waiting.empty() && head.data == nullptr; }

    // Pages that were damaged or that said that an unknown number of records is missing. Reset by the call.
    std::uint64_t TakeLostPages() override;

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
    std::uint64_t records = 0;
    std::uint64_t lostPages = 0;
};

}  // namespace Engine
