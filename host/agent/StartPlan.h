// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "host/agent/MetricsAddress.h"
#include "host/agent/Options.h"
#include "host/agent/PolicyFile.h"
#include "host/sdk/EngineAddress.h"
#include "host/sdk/FileDescriptor.h"

namespace Agent {

// Everything an operator can get wrong, checked before anything starts.
struct StartPlan {
    Options options;
    Policy policy;
    std::vector<std::string> modules;   // paths of the shared libraries, in load order
    std::vector<std::string> warnings;  // what goes on with a doubt
    std::vector<SDK::EngineAddress> engines;
    SDK::FileDescriptor alarmsLock;  // of the alarms file while the agent runs
    MetricsListener metrics;         // none: no metrics are served
};

// Throws BadInput. Touches nothing but the files for alarms and statistics, which must be writable, and the address
// for metrics, which must be free.
StartPlan MakePlan(const Options& options);

}  // namespace Agent
