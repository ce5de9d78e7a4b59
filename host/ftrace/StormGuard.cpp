// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/StormGuard.h"

#include <algorithm>
#include <functional>

namespace Engine {

namespace {

constexpr std::uint64_t countingBegins = 4;  // at one part in so many of the room
constexpr std::uint64_t containerShare = 2;
constexpr std::uint64_t kindShare = 4;  // of the container's

std::uint64_t Room(const Backlog& backlog)
{
    const auto cost = std::max<std::int64_t>(backlog.PerEvent().count(), 1);
    const auto affordable = std::chrono::nanoseconds{StormGuard::patience}.count() / cost;
    return std::clamp(static_cast<std::uint64_t>(affordable), StormGuard::leastRoom, StormGuard::mostRoom);
}

}  // namespace

void StormGuard::Update(const Backlog& backlog)
{
    const std::uint64_t room = Room(backlog);
    const std::uint64_t waiting = backlog.Waiting();
    share = room / containerShare;
    if (waiting >= room) {
        stage = Stage::Shedding;
    } else if (waiting >= room / countingBegins) {
        stage = Stage::Counting;
    } else if (stage != Stage::Calm) {
        stage = Stage::Calm;
        admitted.clear();
    }
}

bool StormGuard::AdmitInStorm(std::uint64_t origin, const EventKind& kind)
{
    std::uint64_t& ofKind = admitted[origin ^ (std::hash<const EventKind*>{}(&kind) * 0x9E3779B97F4A7C15ULL)];
    if (stage == Stage::Shedding) {
        // What a container sent until then is not held against its other calls.
        std::uint64_t& ofContainer = admitted[origin];
        if (ofContainer >= share || ofKind >= share / kindShare) {
            return false;
        }
        ++ofContainer;
    }
    ++ofKind;
    return true;
}

}  // namespace Engine
