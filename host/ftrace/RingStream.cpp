// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/RingStream.h"

#include <linux/bpf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>
#include <system_error>

#include "host/ftrace/SyscallProbeLayout.h"

namespace Engine {
namespace {

constexpr std::size_t bytesPerRound = 384UL * 1024;
// The kernel looks at what was given back when it writes, so not each record is worth a write to that place.
constexpr std::size_t giveBackAt = 8;  // one part in so many of the ring

std::uint64_t Acquire(const std::uint64_t* place)
{
    return std::atomic_ref<std::uint64_t>(*const_cast<std::uint64_t*>(place)).load(std::memory_order_acquire);
}

constexpr std::uint32_t flags = BPF_RINGBUF_BUSY_BIT | BPF_RINGBUF_DISCARD_BIT;

// From a record's header to the next one's; both begin at a multiple of 8.
std::size_t Stride(std::uint32_t length)
{
    return (BPF_RINGBUF_HDR_SZ + (length & ~flags) + 7) & ~std::size_t{7};
}

// Of a record's header: its length with two flags on top.
std::uint32_t AcquireLength(const std::byte* header)
{
    auto* place = reinterpret_cast<std::uint32_t*>(const_cast<std::byte*>(header));
    return std::atomic_ref<std::uint32_t>(*place).load(std::memory_order_acquire);
}

void* Map(int fd, std::size_t bytes, int protection, std::size_t offset)
{
    void* const memory = ::mmap(nullptr, bytes, protection, MAP_SHARED, fd, static_cast<off_t>(offset));
    if (memory == MAP_FAILED) {
        throw std::system_error{errno, std::generic_category(), "cannot map a ring of system calls"};
    }
    return memory;
}

}  // namespace

RingStream::RingStream(SDK::FileDescriptor ring, std::size_t bytes)
    : map(std::move(ring)), bytes(bytes), pageBytes(static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)))
{
    consumed = static_cast<std::uint64_t*>(Map(map.Get(), pageBytes, PROT_READ | PROT_WRITE, 0));
    try {
        // The records follow twice. So much of the second time as a record may be long is enough to read one at the end
        // in one piece; all that is mapped counts as this process's memory.
        produced = static_cast<const std::uint64_t*>(Map(map.Get(), MappedBytes(), PROT_READ, pageBytes));
    } catch (...) {
        ::munmap(consumed, pageBytes);
        throw;
    }
}

RingStream::~RingStream()
{
    ::munmap(consumed, pageBytes);
    ::munmap(const_cast<std::uint64_t*>(produced), MappedBytes());
}

std::size_t RingStream::MappedBytes() const
{
    return pageBytes + bytes + std::min(bytes, 2 * pageBytes);
}

const std::byte* RingStream::At(std::uint64_t where) const
{
    return reinterpret_cast<const std::byte*>(produced) + pageBytes + (where & (bytes - 1));
}

void RingStream::Fill()
{
    const std::uint64_t written = Acquire(produced);
    const std::uint64_t most = std::min(written, position + bytesPerRound);
    end = std::max(end, position);
    while (end < most) {
        const std::uint32_t length = AcquireLength(At(end));
        if ((length & BPF_RINGBUF_BUSY_BIT) != 0) {
            break;
        }
        if ((length & BPF_RINGBUF_DISCARD_BIT) == 0) {
            newest = reinterpret_cast<const CeRecordHead*>(At(end) + BPF_RINGBUF_HDR_SZ)->when;
        }
        end += Stride(length);
    }
    drained = end == written;
    if (head.data == nullptr) {
        LoadHead();
    }
}

// What is read later was written after the newest. The head may always go: a stream that is full cannot block itself.
std::uint64_t RingStream::Horizon() const
{
    return drained ? std::numeric_limits<std::uint64_t>::max() : std::max(newest, head.when + 1);
}

void RingStream::Advance()
{
    position += Stride(AcquireLength(At(position)));
    LoadHead();
    if (head.data == nullptr || position - givenBack >= bytes / giveBackAt) {
        GiveBack();
    }
}

void RingStream::LoadHead()
{
    head = {};
    std::uint32_t length = 0;
    for (; position < end; position += Stride(length)) {
        length = AcquireLength(At(position));
        if ((length & BPF_RINGBUF_DISCARD_BIT) == 0) {
            break;
        }
    }
    if (position == end) {
        return;
    }
    const std::byte* const record = At(position) + BPF_RINGBUF_HDR_SZ;
    const auto* const begin = reinterpret_cast<const CeRecordHead*>(record);
    head.data = record + sizeof(CeRecordHead);
    head.size = (length & ~flags) - static_cast<std::uint32_t>(sizeof(CeRecordHead));
    head.id = reinterpret_cast<const CeEventHead*>(head.data)->type;
    head.when = begin->when;
    head.source = {begin->process, {begin->identity, begin->isInSetUp != 0}};
    if (begin->hasName != 0) {
        head.source.callerName = static_cast<const char*>(reinterpret_cast<const CeSyscallRecord*>(begin)->name);
        head.size = sizeof(CeTraceEntry);
    }
    if (begin->hasProgram != 0) {
        head.source.program = &reinterpret_cast<const CeProgramRecord*>(begin)->program;
    }
}

void RingStream::GiveBack()
{
    std::atomic_ref<std::uint64_t>(*consumed).store(position, std::memory_order_release);
    givenBack = position;
}

}  // namespace Engine
