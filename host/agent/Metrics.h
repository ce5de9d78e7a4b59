// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "host/agent/AgentState.h"
#include "host/agent/StatusReport.h"

namespace Agent {

// The most series that a metric has for a label whose values others choose (containers, rules, classes). The rest is
// one series, "other".
inline constexpr std::size_t maxSeries = 50;

// Everything that is counted, in Prometheus' text format 0.0.4. Any thread.
std::string MetricsText(const AgentState& state, const CounterValues& counters);

}  // namespace Agent
