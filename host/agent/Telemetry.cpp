// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Telemetry.h"

#include <unistd.h>

#include <utility>

#include "host/agent/Console.h"
#include "host/agent/Metrics.h"
#include "host/agent/Status.h"
#include "host/agent/Tasks.h"
#include "host/sdk/Config.h"
#include "host/sdk/ContainerNames.h"
#include "host/sdk/Counters.h"
#include "host/sdk/Impairments.h"
#include "host/sdk/Realtime.h"
#include "sdk/JsonUtils.h"
#include "sdk/MergedAlarms.h"

namespace Agent {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds statisticsInterval = 10s;  // of the statistics file, where no status lines are asked for
constexpr std::chrono::seconds readinessInterval = 10s;   // what is watched and how many containers there are
constexpr std::chrono::hours shedMemory{1};               // how long a container that no longer storms has a series
constexpr char otherContainers[] = "other";

AgentState::Seconds Now()
{
    return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

std::uint64_t Shed(const CounterValues& counters)
{
    namespace Name = SDK::CounterName;
    std::uint64_t sum = 0;
    for (const char* name : {Name::traceShed, Name::traceShedKernel, Name::traceShedLives}) {
        const auto found = counters.find(name);
        sum += found == counters.end() ? 0 : found->second;
    }
    return sum;
}

std::string InLines(const std::vector<std::string>& causes)
{
    std::string text;
    for (const std::string& cause : causes) {
        text += Line(cause);
    }
    return text;
}

}  // namespace

Telemetry::Telemetry(Framework::Engine& engine, StartPlan& plan)
    : engine(engine), plan(plan), nextStatus(Clock::now() + Interval())
{
    state.started = Now();
    published = state;
    if (plan.metrics) {
        server = std::make_unique<MetricsServer>(std::move(plan.metrics),
                                                 [this](const std::string& path) { return Find(path); });
    }
}

// Of the counters, in a line or a file.
std::chrono::milliseconds Telemetry::Interval() const
{
    return plan.options.statusInterval > 0ms ? plan.options.statusInterval : statisticsInterval;
}

void Telemetry::Applied(const Readiness& readiness, const Impairments& impairments)
{
    state.readiness = readiness;
    state.policyLoaded = Now();
    state.policySha256 = plan.policy.sha256;
    nextReadiness = Clock::now() + readinessInterval;
    Look(impairments, Clock::now());
}

void Telemetry::Look(const Impairments& impairments, Clock::time_point now)
{
    if (now >= nextStatus) {
        nextStatus = now + Interval();
        if (plan.options.statusInterval > 0ms) {
            Say("status: " + StatusLine(SDK::Counters::Snapshot()));
        }
        KeepStatistics();
    }
    if (server == nullptr) {
        return;
    }
    server->EndOverdue();
    const CounterValues counters = SDK::Counters::Snapshot();
    LookAtTasks(now);
    BlameForShed(counters, now);
    state.causes = health.Look(state, counters, impairments, now);
    state.looked = now;
    const std::lock_guard lock(mutex);
    published = state;
}

void Telemetry::LookAtTasks(Clock::time_point now)
{
    const SDK::Realtime::Loan promptly;  // it takes locks that detection takes: a storm must not stop it in between
    if (now >= nextReadiness) {
        nextReadiness = now + readinessInterval;
        state.readiness = Readiness::Look(engine, plan);
    }
    state.queued.clear();
    for (const std::string& task : engine.RunningTasks()) {
        state.queued[task] = engine.Queued(task);
    }
    Framework::Task* const collector = engine.FindTask(Tasks::collector);
    if (const auto* registry = dynamic_cast<::Engine::ContainerStatus*>(collector); registry != nullptr) {
        state.registry = registry->Count();
    }
    if (const auto* merged = dynamic_cast<SDK::MergedAlarms*>(engine.FindTask(Tasks::detection)); merged != nullptr) {
        state.merged = merged->Merged();
    }
    state.engines.clear();
    if (const auto* names = dynamic_cast<SDK::ContainerNames*>(collector); names != nullptr) {
        for (const SDK::ContainerNames::EngineState& engineState : names->Engines()) {
            if (engineState.answers || engineState.isMissed) {
                state.engines[engineState.engine] = engineState.answers ? 1 : 0;
            }
        }
    }
}

// An attacker that makes ever more containers storm must not make ever more series: the first ones have one each, the
// rest shares one, and so does again what has not stormed for an hour.
void Telemetry::BlameForShed(const CounterValues& counters, Clock::time_point now)
{
    const std::uint64_t shed = Shed(counters);
    if (const std::uint64_t fresh = shed - std::exchange(shedBefore, shed); fresh != 0) {
        std::string container = SDK::Impairments::Loudest(SDK::Impairments::Source::Trace);
        if (container.empty() || (!lastShed.contains(container) && lastShed.size() >= maxSeries - 1)) {
            container = otherContainers;
        }
        state.shedBy[container] += fresh;
        lastShed[container] = now;
    }
    std::erase_if(lastShed, [&](const auto& entry) {
        const bool isOver = entry.first != otherContainers && now - entry.second > shedMemory;
        if (isOver) {
            state.shedBy[otherContainers] += state.shedBy[entry.first];
            state.shedBy.erase(entry.first);
        }
        return isOver;
    });
}

void Telemetry::Close(const std::string& occasion) const
{
    if (!occasion.empty()) {
        Say(occasion + StatusLine(SDK::Counters::Snapshot()));
    }
    KeepStatistics();
}

void Telemetry::KeepStatistics() const
{
    if (plan.options.statsFile.empty()) {
        return;
    }
    if (const std::error_code error = WriteStatistics(plan.options.statsFile, SDK::Counters::Snapshot())) {
        Say("warning: statistics file " + plan.options.statsFile + ": " + error.message());
    }
}

// Thread: the server's.
MetricsServer::Answer Telemetry::Find(const std::string& path) const
{
    constexpr int good = 200;
    constexpr int unavailable = 503;
    std::unique_lock lock(mutex);
    AgentState found = published;
    lock.unlock();
    found.causes = Health::CausesAt(found, Clock::now());
    MetricsServer::Answer answer;
    if (path == "/healthz") {
        answer.status = found.causes.empty() ? good : unavailable;
        answer.body = found.causes.empty() ? "ok\n" : InLines(found.causes);
    } else if (path == "/metrics") {
        answer = {good, "text/plain; version=0.0.4; charset=utf-8", MetricsText(found, SDK::Counters::Snapshot())};
    } else if (path == statusPath) {
        answer = {good, "application/json",
                  SDK::JsonUtils::JsonToString(StatusDocument(found, SDK::Counters::Snapshot())) + "\n"};
    }
    return answer;
}

}  // namespace Agent
