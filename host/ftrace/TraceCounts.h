// SPDX-License-Identifier: Apache-2.0
// What became of the trace's events, counted for the agent's counters, and a warning at times that some were lost.
#pragma once

#include <chrono>
#include <cstdint>

#include "host/sdk/RepeatedReport.h"

namespace Engine {

// Plain numbers, since they change with every event: Publish adds them to SDK::Counters and begins anew.
// Unit: events; those of subscribers once for each. Thread: the trace task's.
class TraceCounts {
public:
    std::uint64_t read = 0;
    std::uint64_t callsRead = 0;     // the system calls among them
    std::uint64_t notContainer = 0;  // system calls that the observer did not admit
    std::uint64_t shed = 0;          // excluded, because their container had its share of the subscriber's queue
    std::uint64_t lostQueue = 0;     // refused by a subscriber's queue
    std::uint64_t unwanted = 0;      // for a subscriber that had stopped, or that stopped with them in its queue
    std::uint64_t callsRefused = 0;  // the system calls among the last two
    std::uint64_t lostOverrun = 0;   // as KernelLoss
    std::uint64_t lostDropped = 0;   // as KernelLoss, and system calls as SyscallLoss
    std::uint64_t lostLives = 0;     // as SyscallLoss::droppedLife
    std::uint64_t shedKernel = 0;    // as SyscallLoss::shed
    std::uint64_t shedLives = 0;     // as SyscallLoss::shedLife
    std::uint64_t late = 0;          // as TraceMerger::TakeLate
    std::uint64_t lostPages = 0;     // pages, as RecordStream::TakeLostPages

    void Publish();

    // Logs what was published as lost, once a minute for each place at most.
    void Warn(std::chrono::steady_clock::time_point now);

private:
    SDK::RepeatedReport inKernel;
    SDK::RepeatedReport inQueues;
    SDK::RepeatedReport inStorms;
    std::chrono::steady_clock::time_point quietAt;  // when there was nothing to warn of
};

}  // namespace Engine
