// SPDX-License-Identifier: Apache-2.0
// What the agent tells about itself while it runs: status lines, the statistics file, metrics and health.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "framework/Engine.h"
#include "host/agent/AgentState.h"
#include "host/agent/Health.h"
#include "host/agent/MetricsServer.h"
#include "host/agent/StartPlan.h"

namespace Agent {

// Ownership: engine and plan are not owned and outlive it; the plan may change between two calls.
// Thread:    the main thread. What the metrics' clients get is what Look found last, and the counters of the moment.
class Telemetry {
public:
    using Clock = std::chrono::steady_clock;

    // Begins to serve metrics on the plan's listener, if it has one: until Applied, it is still starting.
    Telemetry(Framework::Engine& engine, StartPlan& plan);

    using Impairments = std::map<std::string, std::string>;  // as ImpairmentReport::Lately has them

    // A policy has taken effect.
    void Applied(const Readiness& readiness, const Impairments& impairments);

    // Does what is due: to be called about once a second.
    void Look(const Impairments& impairments, Clock::time_point now);

    // No client is answered any more. Waits for none.
    void EndServing() { server.reset(); }

    // The last status line and the last statistics file. `occasion` begins the line; empty: no line.
    void Close(const std::string& occasion) const;

private:
    std::chrono::milliseconds Interval() const;
    void KeepStatistics() const;
    void LookAtTasks(Clock::time_point now);
    void BlameForShed(const CounterValues& counters, Clock::time_point now);
    MetricsServer::Answer Find(const std::string& path) const;

    Framework::Engine& engine;
    StartPlan& plan;
    Clock::time_point nextStatus;
    Clock::time_point nextReadiness{};
    Health health;
    std::uint64_t shedBefore = 0;
    std::map<std::string, Clock::time_point> lastShed;  // of the containers in state.shedBy
    AgentState state;
    mutable std::mutex mutex;               // of `published`
    AgentState published;                   // the state of the last look
    std::unique_ptr<MetricsServer> server;  // last: it uses the above
};

}  // namespace Agent
