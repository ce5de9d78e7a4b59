// SPDX-License-Identifier: Apache-2.0
// Adds what was read, delivered and lost to the agent's counters, and says at times that something was lost.
#pragma once

#include <chrono>
#include <cstdint>

#include "host/ftrace/EventDelivery.h"
#include "host/ftrace/RawPipe.h"
#include "host/ftrace/SyscallProbe.h"
#include "host/sdk/RepeatedReport.h"

namespace Engine {

// Thread: one at a time.
class LossReport {
public:
    using Clock = std::chrono::steady_clock;

    void Add(const DeliverySums& sums);
    void Add(const KernelLoss& loss);
    void Add(const SyscallLoss& loss);
    void AddLate(std::uint64_t events);
    void AddLostPages(std::uint64_t pages);

    // Logs what was lost since the last line about that place, at most once a minute.
    void Report(Clock::time_point now);

private:
    SDK::RepeatedReport inKernel;
    SDK::RepeatedReport inQueues;
    SDK::RepeatedReport inStorms;
};

}  // namespace Engine
