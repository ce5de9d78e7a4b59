// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Readiness.h"

#include <map>
#include <set>

#include "host/agent/Machine.h"
#include "host/agent/Tasks.h"
#include "host/filenotify/FileStatus.h"
#include "host/sdk/ContainerNames.h"
#include "sdk/StrUtils.h"

namespace Agent {

namespace {

using Engines = std::vector<SDK::ContainerNames::EngineState>;

KernelCoverage Coverage(Framework::Engine& engine)
{
    auto* trace = Tasks::Trace(engine);
    const auto* files = dynamic_cast<::Engine::FileStatus*>(engine.FindTask(Tasks::fileNotify));
    return {trace != nullptr ? trace->RecordedEvents() : std::set<std::string>{},
            files != nullptr ? files->Watches() : std::map<std::string, std::string>{}, CallEventsDir()};
}

}  // namespace

Readiness Readiness::Look(Framework::Engine& engine, const StartPlan& plan)
{
    const auto* trace = Tasks::Trace(engine);
    const auto* names = dynamic_cast<SDK::ContainerNames*>(engine.FindTask(Tasks::collector));
    Readiness now{plan.policy.calls.size(),
                  plan.policy.directories.size(),
                  Examine(plan.policy, Coverage(engine)),
                  {},
                  CountContainers(),
                  trace == nullptr ? std::string{} : trace->CallPlace(),
                  plan.warnings};
    for (const SDK::ContainerNames::EngineState& state : names == nullptr ? Engines{} : names->Engines()) {
        if (state.answers) {
            now.engines.push_back(state.engine);
        } else if (!state.problem.empty()) {
            now.warnings.push_back(
                std::string{"container engine at "}.append(state.engine).append(": ").append(state.problem));
        }
    }
    if (const std::string why = trace == nullptr ? "" : trace->WhyWithoutBpf(); !why.empty()) {
        now.coverage.warnings.push_back("no BPF (" + why +
                                        "): calls through the 32-bit entry are not seen, a storm is not bounded " +
                                        "in the kernel, and a program that has ended is not described");
    }
    const std::vector<std::string> doubts = DoubtsAbout(plan.options.exceptions, plan.options, plan.policy);
    now.coverage.warnings.insert(now.coverage.warnings.end(), doubts.begin(), doubts.end());
    now.warnings.insert(now.warnings.end(), now.coverage.warnings.begin(), now.coverage.warnings.end());
    return now;
}

std::string Readiness::InWords() const
{
    std::string detectors;
    for (const std::string& detector : coverage.detectors) {
        detectors += ", " + detector;
    }
    std::string engineText = engines.empty() ? "no engine" : "";
    for (const std::string& engine : engines) {
        engineText.append(engineText.empty() ? "engine " : ", engine ").append(engine);
    }
    return SDK::StrUtils::Format(
               "watching %zu of %zu listed calls, %zu of %zu listed directories%s, %s, %zu containers", coverage.calls,
               listedCalls, coverage.directories, listedDirectories, detectors.c_str(), engineText.c_str(),
               containers) +
           (callPlace.empty() ? "" : ", system calls at " + callPlace);
}

bool Readiness::IsComplete() const
{
    return coverage.calls == listedCalls && coverage.directories == listedDirectories && coverage.hasAllDetectors;
}

}  // namespace Agent
