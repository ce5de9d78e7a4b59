// SPDX-License-Identifier: Apache-2.0
// Pages of a trace buffer made by hand, in the form in which the kernel gives them (kernel/trace/ring_buffer.c: struct
// buffer_data_page, struct ring_buffer_event), and a buffer that hands them out.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <span>
#include <utility>
#include <vector>

#include "host/ftrace/PageSource.h"

namespace Support {

inline constexpr std::size_t pageBytes = 4096;

using Bytes = std::vector<std::byte>;

template <class T>
void Put(Bytes& bytes, std::size_t offset, T value)
{
    bytes.resize(std::max(bytes.size(), offset + sizeof value));
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

// The common fields, then `more`.
inline Bytes Record(std::uint16_t id, std::int32_t pid, const Bytes& more = {})
{
    Bytes record;
    Put(record, 0, id);
    Put(record, 4, pid);
    record.insert(record.end(), more.begin(), more.end());
    return record;
}

class PageBuilder {
public:
    static constexpr std::size_t headerBytes = 16;

    explicit PageBuilder(std::uint64_t begins) : last(begins)
    {
        page.reserve(pageBytes);
        Put(page, 0, begins);
        Put(page, commitOffset, std::uint64_t{0});
    }

    // `record`: at most 112 bytes. `when`: not before the record added last. False when the page is full.
    bool Add(std::uint64_t when, const Bytes& record)
    {
        constexpr unsigned deltaBits = 27;
        constexpr std::uint64_t deltaMask = (1U << deltaBits) - 1;
        constexpr std::uint32_t timeExtend = 30;
        constexpr std::size_t word = 4;
        const std::size_t words = (record.size() + word - 1) / word;
        if (page.size() + words * word + 3 * word > pageBytes) {
            return false;
        }
        std::uint64_t delta = when - std::exchange(last, when);
        if (delta > deltaMask) {
            Put(page, page.size(), timeExtend | static_cast<std::uint32_t>((delta & deltaMask) << 5));
            Put(page, page.size(), static_cast<std::uint32_t>(delta >> deltaBits));
            delta = 0;
        }
        Put(page, page.size(), static_cast<std::uint32_t>(words) | static_cast<std::uint32_t>(delta << 5));
        page.insert(page.end(), record.begin(), record.end());
        page.resize(page.size() + words * word - record.size());
        Put(page, commitOffset, std::uint64_t{page.size() - headerBytes} | flags);
        return true;
    }

    // Records before this page are missing, an unknown number.
    PageBuilder& AfterLoss()
    {
        flags = std::uint64_t{1} << 31;
        Put(page, commitOffset, std::uint64_t{page.size() - headerBytes} | flags);
        return *this;
    }

    Bytes Page() const
    {
        Bytes whole = page;
        whole.resize(pageBytes);
        return whole;
    }

private:
    static constexpr std::size_t commitOffset = 8;

    Bytes page;
    std::uint64_t last;
    std::uint64_t flags = 0;
};

// One CPU's buffer: gives the pages of `from` one after the other, also those that are added later.
class MemoryPages final : public Engine::PageSource {
public:
    // Not owned.
    explicit MemoryPages(const std::deque<Bytes>& from) : pages(&from) {}

    std::size_t ReadPage(std::span<std::byte> page) override
    {
        if (next == pages->size()) {
            return 0;
        }
        const Bytes& from = (*pages)[next++];
        std::memcpy(page.data(), from.data(), std::min(from.size(), page.size()));
        return from.size();
    }
    void WindBack() { next = 0; }

private:
    const std::deque<Bytes>* pages;
    std::size_t next = 0;
};

}  // namespace Support
