// SPDX-License-Identifier: Apache-2.0
// How far a subscriber is behind, as its batches tell.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace Engine {

// Shared by the trace task, which sends, and the batches, which are handled or dropped on any thread.
class Backlog {
public:
    void Sent(std::uint64_t events) { waiting.fetch_add(events, std::memory_order_relaxed); }
    void Gone(std::uint64_t events) { waiting.fetch_sub(events, std::memory_order_relaxed); }

    // What handling one batch took. Threads: one at a time, the subscriber's.
    void Handled(std::uint64_t events, std::chrono::nanoseconds took)
    {
        constexpr std::uint64_t weight = 4;  // of the past against the new value
        const std::uint64_t now = static_cast<std::uint64_t>(took.count()) / std::max<std::uint64_t>(events, 1);
        const std::uint64_t before = perEvent.load(std::memory_order_relaxed);
        perEvent.store((before * (weight - 1) + now) / weight, std::memory_order_relaxed);
    }

    // Events sent and neither handled nor dropped yet.
    std::uint64_t Waiting() const { return waiting.load(std::memory_order_relaxed); }

    // Recent cost of one event to the subscriber; before the first batch that of one that raises an alarm, so that a
    // subscriber which comes in the middle of a storm is not given more than it may be able to handle.
    std::chrono::nanoseconds PerEvent() const
    {
        return std::chrono::nanoseconds{perEvent.load(std::memory_order_relaxed)};
    }

private:
    std::atomic<std::uint64_t> waiting{0};
    std::atomic<std::uint64_t> perEvent{20000};
};

}  // namespace Engine
