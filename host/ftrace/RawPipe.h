// SPDX-License-Identifier: Apache-2.0
// One CPU's buffer of a live trace instance.
#pragma once

#include <cstdint>
#include <string_view>

#include "host/ftrace/PageSource.h"
#include "host/sdk/FileDescriptor.h"

namespace Engine {

class TracefsInstance;

// What the kernel did not keep, in events, counted since the buffer was made (per_cpu/cpuN/stats).
struct KernelLoss {
    std::uint64_t overrun = 0;  // written and overwritten before they were read
    std::uint64_t dropped = 0;  // never written: "dropped events" and "commit overrun" together
    std::uint64_t read = 0;     // "read events", by whatever program; no loss
    // Not in the file:
    std::uint64_t readByOthers = 0;
    bool wasCleared = false;  // another program began the counts, and so the buffer, anew

    // The counts in the text of a stats file; lines that are missing count as 0.
    static KernelLoss Parse(std::string_view stats);
};

class RawPipe : public PageSource {
public:
    // Invalid (Valid() is false, errno) when the files cannot be opened.
    RawPipe(const TracefsInstance& instance, int cpu);

    bool Valid() const { return pipe && stats; }

    // Readable, for epoll(7), when a page holds at least one event. Reports EPOLLERR for a CPU that was never online.
    int Descriptor() const { return pipe.Get(); }

    std::size_t ReadPage(std::span<std::byte> page) override;

    // What was lost since the last call.
    KernelLoss TakeLoss();

private:
    SDK::FileDescriptor pipe;
    SDK::FileDescriptor stats;
    KernelLoss seen;
};

}  // namespace Engine
