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

// The common fields, then zeros. `bytes`: at least 8.
inline Bytes Record(std::uint16_t id, std::int32_t pid, std::size_t bytes = 8)
{
    Bytes record(bytes);
    Put(record, 0, id);
    Put(record, 4, pid);
    return record;
}

class PageBuilder {
public:
    explicit PageBuilder(std::uint64_t begins) : page(headerBytes), last(begins) { Put(page, 0, begins); }

    // `record`: at most 112 bytes. `when`: not before the record added last. False when the page is full.
    bool Add(std::uint64_t when, const Bytes& record)
    {
        const std::size_t words = (record.size() + 3) / 4;
        if (page.size() + 4 * (3 + words) > pageBytes) {
            return false;
        }
        std::uint64_t delta = when - std::exchange(last, when);
        if (delta >> 27 != 0) {  // does not fit the record's header: an entry of type 30, time extend, comes before it
            Put(page, page.size(), 30U | static_cast<std::uint32_t>(delta << 5));
            Put(page, page.size(), static_cast<std::uint32_t>(std::exchange(delta, 0) >> 27));
        }
        Put(page, page.size(), static_cast<std::uint32_t>(words | delta << 5));  // words < 29: both type and length
        page.insert(page.end(), record.begin(), record.end());
        page.resize((page.size() + 3) / 4 * 4);
        return true;
    }

    // `afterLoss`: records before this page are missing, an unknown number.
    Bytes Page(bool afterLoss = false) const
    {
        Bytes whole = page;
        Put(whole, 8, std::uint64_t{page.size() - headerBytes} | std::uint64_t{afterLoss} << 31);
        whole.resize(pageBytes);
        return whole;
    }

private:
    static constexpr std::size_t headerBytes = 16;

    Bytes page;
    std::uint64_t last;
};

// One CPU's buffer: gives the pages of `from` one after the other, also those that are added later.
class MemoryPages final : public Engine::PageSource {
public:
    // Not owned.
    explicit MemoryPages(const std::deque<Bytes>& from) : pages(from) {}

    std::size_t ReadPage(std::span<std::byte> page) override
    {
        if (next == pages.size()) {
            return 0;
        }
        const Bytes& from = pages[next++];
        std::copy(from.begin(), from.end(), page.begin());
        return from.size();
    }
    void WindBack() { next = 0; }

private:
    const std::deque<Bytes>& pages;
    std::size_t next = 0;
};

}  // namespace Support
