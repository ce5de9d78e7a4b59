// SPDX-License-Identifier: Apache-2.0
// What the command "policy" prints.
#pragma once

#include <string>

#include "host/agent/PolicyFile.h"

namespace Agent {

// The policy that is installed, and the JSON Schema of policies.
std::string ExamplePolicy();
std::string PolicySchema();

// What each entry makes the agent do, a line for each, and what it does whatever the policy lists.
std::string Explain(const Policy& policy);

}  // namespace Agent
