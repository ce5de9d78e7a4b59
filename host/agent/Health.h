// SPDX-License-Identifier: Apache-2.0
// Whether the agent does all that it is to do, and if not, why.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "host/agent/AgentState.h"
#include "host/agent/StatusReport.h"

namespace Agent {

// Thread: one at a time, but for Unhealthy.
class Health {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::minutes memory{1};        // of what happened
    static constexpr std::chrono::seconds longestPause{5};  // of the main thread between two looks

    // Why it is not healthy, a sentence for each cause. `impairments`: as ImpairmentReport::Lately has them.
    std::vector<std::string> Look(const AgentState& state, const CounterValues& counters,
                                  const std::map<std::string, std::string>& impairments, Clock::time_point now);

    // The same at any time after it, which a main thread that stands still belongs to. Any thread.
    static std::vector<std::string> CausesAt(const AgentState& state, Clock::time_point now);

private:
    struct Last {
        std::uint64_t value = 0;
        Clock::time_point changed = Clock::time_point::min();
    };
    bool HasGrown(const char* counter, const CounterValues& counters, Clock::time_point now);

    std::map<std::string, Last> seen;
};

}  // namespace Agent
