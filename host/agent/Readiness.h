// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "framework/Engine.h"
#include "host/agent/PolicyFile.h"
#include "host/agent/StartPlan.h"

namespace Agent {

// What is watched.
struct Readiness {
    std::size_t listedCalls = 0;
    std::size_t listedDirectories = 0;
    PolicyCoverage coverage;
    std::vector<std::string> engines;  // that answer, as SDK::EngineAddress::Text
    std::size_t containers = 0;
    std::string callPlace;              // where system calls are recorded; empty: nowhere
    std::vector<std::string> warnings;  // of the start and of the policy

    // As the modules say at this moment. Thread: the main thread.
    static Readiness Look(Framework::Engine& engine, const StartPlan& plan);

    // "watching 2 of 2 listed calls, ..."
    std::string InWords() const;

    // Whether everything that the policy lists is watched, and the detectors that need no entry have all their calls.
    bool IsComplete() const;
};

}  // namespace Agent
