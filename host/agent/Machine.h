// SPDX-License-Identifier: Apache-2.0
// What the agent finds on the machine: whether it can run here, its modules.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "host/agent/Options.h"
#include "host/sdk/FileDescriptor.h"

namespace Agent {

// Empty when the agent can run here, else one sentence that says what to do.
std::string WhyNotHere();

// tracefs's folder of system call events; empty when there is none.
std::string CallEventsDir();

// The shared libraries to load, in load order: each may need those before it. Throws BadInput when one is not there.
std::vector<std::string> ModulePaths(const Options& options);

// Throws BadInput when alarms could not be appended to `path`. Makes the file if it is missing. Returns the lock on it,
// by which another agent knows that the file is taken; without descriptor when it is no regular file.
SDK::FileDescriptor CheckAlarmsFile(const std::string& path, std::vector<std::string>& warnings);

// How many containers have a process now.
std::size_t CountContainers();

}  // namespace Agent
