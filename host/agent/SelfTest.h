// SPDX-License-Identifier: Apache-2.0
// The command "selftest": attacks as a container would, and says which detectors raised an alarm.
#pragma once

#include <string>

#include "host/agent/Console.h"
#include "host/agent/Options.h"

namespace Agent {

// The id of the container that the attacks come from, in every alarm that they raise: also in those of another agent on
// this host, where it can be filtered by.
inline constexpr char selfTestContainer[] = "5e1f7e575e1f7e575e1f7e575e1f7e575e1f7e575e1f7e575e1f7e575e1f7e57";

// Makes control groups of that name, an agent and a program in these groups which attacks; all of it is gone when it
// returns. Prints a line for each detector. Returns 0, 1 when one did not alarm, or 2: the agent does not start. Needs
// root. Thread: as HostAgent's.
ExitCode SelfTest(const Options& options);

// What that program does. `directory` is watched.
ExitCode Attack(const std::string& directory);

}  // namespace Agent
