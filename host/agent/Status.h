// SPDX-License-Identifier: Apache-2.0
// How the agent that runs does: the document that it gives, and the command that asks for it.
#pragma once

#include <json/value.h>

#include <string>

#include "host/agent/AgentState.h"
#include "host/agent/Console.h"
#include "host/agent/Options.h"
#include "host/agent/StatusReport.h"

namespace Agent {

inline constexpr char statusPath[] = "/status";

// Any thread.
Json::Value StatusDocument(const AgentState& state, const CounterValues& counters);

// The same for people. What is missing in the document, or of another type, is left out.
std::string StatusInWords(const Json::Value& document);

// Asks the agent at the address of the options and prints. badInput: none answers.
ExitCode Status(const Options& options);

}  // namespace Agent
