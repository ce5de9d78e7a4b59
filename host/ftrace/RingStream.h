// SPDX-License-Identifier: Apache-2.0
// The records of one BPF ring (BPF_MAP_TYPE_RINGBUF), where they lie.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/ftrace/RecordStream.h"
#include "host/sdk/FileDescriptor.h"

namespace Engine {

// The ring's layout: Documentation/bpf/ringbuf.rst and kernel/bpf/ringbuf.c of the kernel. Its records
// begin with CeRecordHead, and are written on one CPU, so in the order of their times.
class RingStream final : public RecordStream {
public:
    // `map`: the ring, of `bytes`. Throws std::system_error.
    RingStream(SDK::FileDescriptor map, std::size_t bytes);
    RingStream(const RingStream&) = delete;
    RingStream& operator=(const RingStream&) = delete;
    ~RingStream() override;

    // Readable, for epoll(7), when there are records.
    int Descriptor() const { return map.Get(); }

    void Fill() override;
    std::uint64_t Horizon() const override;
    void Advance() override;
    std::uint64_t TakeLostPages() override { return 0; }

private:
    std::size_t MappedBytes() const;  // of `produced`, and what follows it
    const std::byte* At(std::uint64_t where) const;
    void LoadHead();
    void GiveBack();

    SDK::FileDescriptor map;
    std::size_t bytes;
    std::size_t pageBytes;
    std::uint64_t* consumed = nullptr;        // up to where the kernel may write again; in a page of its own
    const std::uint64_t* produced = nullptr;  // up to where it has written or is writing; in a page before the records
    std::uint64_t position = 0;               // of the head
    std::uint64_t givenBack = 0;
    std::uint64_t end = 0;  // of what may be read in this round
    std::uint64_t newest = 0;
    bool drained = false;
};

}  // namespace Engine
