// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/CpuStream.h"

extern "C" {  // the header does not say so itself
#include <traceevent/kbuffer.h>
}

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace Engine {
namespace {

// struct buffer_data_page (kernel/trace/ring_buffer.c) on a 64-bit kernel: time of the first record, then the number of
// bytes in use with flags in its upper bits, then the records.
constexpr std::size_t commitOffset = 8;
constexpr std::size_t headerBytes = 16;
constexpr std::uint64_t commitMask = (1U << 27) - 1;

// The decoder looks at a record's header before it compares lengths; so far it may look past the last page's end.
constexpr std::size_t slackBytes = 16;

std::uint64_t Word(const std::byte* from)
{
    std::uint64_t value = 0;
    std::memcpy(&value, from, sizeof value);
    return value;
}

std::size_t RecordBytes(const std::byte* page)
{
    return Word(page + commitOffset) & commitMask;
}

}  // namespace

void CpuStream::BufferDeleter::operator()(kbuffer* buffer) const
{
    kbuffer_free(buffer);
}

CpuStream::CpuStream(std::unique_ptr<PageSource> source, std::size_t pageBytes, std::size_t maxPages)
    : source(std::move(source)),
      pageBytes(pageBytes),
      maxPages(std::max<std::size_t>(maxPages, 2)),
      decoder(kbuffer_alloc(KBUFFER_LSIZE_8, KBUFFER_ENDIAN_SAME_AS_HOST))
{
    if (decoder == nullptr) {
        throw std::bad_alloc{};
    }
}

void CpuStream::Fill()
{
    drained = false;
    while (waiting.size() < maxPages) {
        if (!ReadOne()) {
            drained = true;
            break;
        }
    }
    if (head.data == nullptr) {
        LoadNext();
    }
}

// False when the source has nothing.
bool CpuStream::ReadOne()
{
    Page page;
    if (spare.empty()) {
        page = std::make_unique<std::byte[]>(pageBytes + slackBytes);
    } else {
        page = std::move(spare.back());
        spare.pop_back();
    }
    const std::size_t bytes = source->ReadPage({page.get(), pageBytes});
    if (bytes != 0 && Plausible(page.get(), bytes)) {
        waiting.push_back(std::move(page));
    } else {
        lostPages += bytes != 0 ? 1 : 0;
        spare.push_back(std::move(page));
    }
    return bytes != 0;
}

bool CpuStream::Plausible(const std::byte* page, std::size_t bytes) const
{
    return bytes >= headerBytes && RecordBytes(page) <= bytes - headerBytes;
}

// What is read later from this CPU is not earlier than the last page's first record. Nor is it earlier than the head,
// so that one may always go: a stream that is full cannot block itself.
std::uint64_t CpuStream::Horizon() const
{
    if (drained || waiting.empty()) {
        return std::numeric_limits<std::uint64_t>::max();
    }
    return std::max(Word(waiting.back().get()), head.when + 1);
}

void CpuStream::Advance()
{
    const std::byte* previous = head.data;
    unsigned long long when = 0;
    const auto* record = static_cast<const std::byte*>(kbuffer_next_event(decoder.get(), &when));
    head = {};
    // Lengths in a damaged page may lead the decoder back: what does not move forward ends the page.
    const bool isDamaged = record != nullptr && record <= previous;
    lostPages += isDamaged ? 1 : 0;
    if (record == nullptr || isDamaged || !Take(record, when)) {
        LoadNext();
    }
}

// Goes on to the first record of the next page that has one. The page loaded before is done with.
void CpuStream::LoadNext()
{
    bool afterLoss = false;
    if (loaded) {
        DropFront();
    }
    while (!waiting.empty()) {
        afterLoss |= LoadFront();
        unsigned long long when = 0;
        const auto* record = static_cast<const std::byte*>(kbuffer_read_event(decoder.get(), &when));
        if (record != nullptr && Take(record, when)) {
            head.afterLoss = afterLoss;
            return;
        }
        DropFront();
    }
}

// Returns whether the page says that records before it are missing.
bool CpuStream::LoadFront()
{
    std::byte* page = waiting.front().get();
    kbuffer_load_subbuffer(decoder.get(), page);
    loaded = true;
    end = page + headerBytes + RecordBytes(page);
    // How many is known to the kernel's statistics too, where all that was overwritten is counted; -1: not known.
    const int missed = kbuffer_missed_events(decoder.get());
    lostPages += missed < 0 ? 1 : 0;
    return missed != 0;
}

// False, and the page is counted as damaged, when the record would reach past its page's end.
bool CpuStream::Take(const std::byte* record, std::uint64_t when)
{
    const auto size = static_cast<std::size_t>(kbuffer_event_size(decoder.get()));
    std::uint16_t id = 0;
    if (record > end || size < sizeof id || size > static_cast<std::size_t>(end - record)) {
        ++lostPages;
        return false;
    }
    std::memcpy(&id, record, sizeof id);
    ++records;
    head = {record, static_cast<std::uint32_t>(size), id, false, when, {}};
    return true;
}

void CpuStream::DropFront()
{
    spare.push_back(std::move(waiting.front()));
    waiting.pop_front();
    loaded = false;
}

std::uint64_t CpuStream::TakeLostPages()
{
    return std::exchange(lostPages, 0);
}

}  // namespace Engine
