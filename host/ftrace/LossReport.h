// SPDX-License-Identifier: Apache-2.0
// Adds what was read, delivered and lost to the agent's counters, and says at times that something was lost.
#pragma once

#include <chrono>
#include <cstdint>

#include "host/ftrace/EventDelivery.h"
#include "host/ftrace/RawPipe.h"
#include "host/ftrace/SyscallProbe.h"

namespace Engine {

// Thread: one at a time.
class LossReport {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::minutes pause{1};  // from one line to the next

    void Add(const DeliverySums& sums);
    void Add(const KernelLoss& loss);
    void Add(const SyscallLoss& loss);
    void AddLate(std::uint64_t events);
    void AddLostPages(std::uint64_t pages);

    // Logs what was lost since the last line, if anything was and the last line is a while ago. Returns whether it did.
    bool Report(Clock::time_point now);

private:
    std::uint64_t inKernel = 0;  // since the last line
    std::uint64_t inQueues = 0;
    std::uint64_t inStorms = 0;
    Clock::time_point quietUntil = Clock::time_point::min();
};

}  // namespace Engine
