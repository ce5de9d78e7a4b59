// SPDX-License-Identifier: Apache-2.0
// Which container engines the agent asks. Thread: the main thread.
#pragma once

#include <string>
#include <vector>

#include "host/sdk/EngineAddress.h"

namespace CLI {
class App;
}

namespace Agent {

struct Options;

// Gives a command the option that names engines.
void AddEngineOption(CLI::App& command, Options& options);

// The container engines that the options name; if they name none, the usual ones. Throws BadInput: a contradiction.
std::vector<SDK::EngineAddress> EnginesOf(const Options& options);

// What is to be said of those where nothing listens; of the usual ones, if that is so with all.
std::vector<std::string> MissingEngines(const std::vector<SDK::EngineAddress>& engines);

}  // namespace Agent
