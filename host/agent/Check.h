// SPDX-License-Identifier: Apache-2.0
// The command "check": what a start with these options would watch, found out by a start that raises no alarms.
#pragma once

#include "host/agent/Console.h"
#include "host/agent/Options.h"

namespace Agent {

// Prints what it finds on standard output. Returns 0, 1 with warnings, or 2: the agent would not start. Thread: as
// HostAgent's.
ExitCode Check(const Options& options);

}  // namespace Agent
