// SPDX-License-Identifier: Apache-2.0
// Keeps one container that storms from blinding a subscriber to all the others.
#pragma once

#include <chrono>
#include <cstdint>
#include <unordered_map>

#include "host/ftrace/Backlog.h"

namespace Engine {

class EventKind;

// A queue that is full loses whatever comes next, the one call of a quiet container as well as the millionth of a loud
// one. So long before the queue is full, while the subscriber is more than `patience` behind, each container may only
// have its share of what waits, and each kind of event of a container its share of that: who floods with one call does
// not drown its own other calls either. What is left out is counted (trace.shed). It costs a look at two numbers for
// each batch while the subscriber keeps up, which it does but in a storm.
//
// Thread: the trace task's. One for each subscriber.
class StormGuard {
public:
    // Alarms of others must come within a second, also when several containers storm at once.
    static constexpr std::chrono::milliseconds patience{100};
    // Bounds of the events that may wait: so many that a burst passes, so few that they take some megabytes.
    static constexpr std::uint64_t leastRoom = 2048;
    static constexpr std::uint64_t mostRoom = 65536;

    // Looks at the backlog. After each batch and each round.
    void Update(const Backlog& backlog);

    // Whether a system call goes to the subscriber. `origin`: stands for the container that made it.
    bool Admit(std::uint64_t origin, const EventKind& kind)
    {
        return stage == Stage::Calm || AdmitInStorm(origin, kind);
    }

private:
    // Counting begins before anything is left out, so that those who fill the queue are known by then.
    enum class Stage { Calm, Counting, Shedding };

    bool AdmitInStorm(std::uint64_t origin, const EventKind& kind);

    Stage stage = Stage::Calm;
    std::uint64_t share = leastRoom;
    std::unordered_map<std::uint64_t, std::uint64_t> admitted;  // since the last calm, by kind and by container
};

}  // namespace Engine
