// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/agent/Readiness.h"
#include "host/container/ContainerStatus.h"

namespace Agent {

// What the main thread found when it last looked after the agent. With the counters it is all that metrics and status
// are made of.
struct AgentState {
    using Clock = std::chrono::steady_clock;
    using Seconds = std::chrono::sys_seconds;
    using Counts = std::map<std::string, std::uint64_t>;

    std::optional<Clock::time_point> looked;  // empty: it is still starting
    Seconds started{};
    Seconds policyLoaded{};
    std::string policySha256;
    Counts engines;  // 1: it answers, 0: it does not; without those that are only looked for and are not there
    Readiness readiness;
    std::map<std::string, std::size_t> queued;  // messages, by task
    ::Engine::ContainerStatus::Sizes registry;
    Counts shedBy;                    // events excluded in storms, by the container that most were of then
    Counts merged;                    // alarms, by class
    std::vector<std::string> causes;  // why it is not healthy, a sentence each; empty: it is
};

}  // namespace Agent
