// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Health.h"

#include "host/sdk/Counters.h"
#include "sdk/StrUtils.h"

namespace Agent {

namespace {

void AddUnwatched(std::size_t watched, std::size_t listed, const char* what, std::vector<std::string>& causes)
{
    if (watched < listed) {
        causes.push_back(SDK::StrUtils::Format("%zu of %zu listed %s are not watched", listed - watched, listed, what));
    }
}

}  // namespace

std::vector<std::string> Health::Look(const AgentState& state, const CounterValues& counters,
                                      const std::map<std::string, std::string>& impairments, Clock::time_point now)
{
    std::vector<std::string> causes;
    const Readiness& readiness = state.readiness;
    AddUnwatched(readiness.coverage.calls, readiness.listedCalls, "calls", causes);
    AddUnwatched(readiness.coverage.directories, readiness.listedDirectories, "directories", causes);
    if (!readiness.coverage.hasAllDetectors) {
        causes.emplace_back("a detector lacks calls that it needs");
    }
    for (const auto& [engine, answers] : state.engines) {
        if (answers == 0) {
            causes.push_back(std::string{"the container engine does not answer: "}.append(engine));
        }
    }
    for (const auto& [cause, detail] : impairments) {
        causes.push_back(std::string{"in the last minute: "}.append(cause).append(", ").append(detail));
    }
    if (HasGrown(SDK::CounterName::alarmsLost, counters, now)) {
        causes.emplace_back("in the last minute: alarms were lost");
    }
    if (HasGrown(SDK::CounterName::alarmsRefused, counters, now)) {
        causes.emplace_back("in the last minute: alarms could not be written and were kept back");
    }
    return causes;
}

std::vector<std::string> Health::CausesAt(const AgentState& state, Clock::time_point now)
{
    if (!state.looked) {
        return {"it is still starting"};
    }
    std::vector<std::string> causes = state.causes;
    if (now - *state.looked > longestPause) {
        causes.emplace_back("the main thread stands still");
    }
    return causes;
}

bool Health::HasGrown(const char* counter, const CounterValues& counters, Clock::time_point now)
{
    Last& last = seen[counter];
    if (const auto found = counters.find(counter); found != counters.end() && found->second != last.value) {
        last = {found->second, now};
    }
    return last.value != 0 && now - last.changed < memory;
}

}  // namespace Agent
