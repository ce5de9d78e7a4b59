// SPDX-License-Identifier: Apache-2.0
// The command line.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "host/sdk/Config.h"

namespace Agent {

struct Options {
    enum class Action { Run, Help, Version };

    Action action = Action::Run;
    std::string policyFile;
    std::string alarmsFile;  // empty: standard output
    std::string dockerSocket = SDK::Config::defaultDockerSocket;
    std::string logLevel = "notice";
    std::string modulesDir;  // empty: where the agent is installed, see DefaultModulesDir
    bool namespaceCheck = false;
    unsigned int bufferKb = 0;  // KiB for each CPU; 0: the trace module's own choice
    std::string syscallSource = "auto";
    std::string statsFile;                   // empty: none
    std::chrono::seconds statusInterval{0};  // 0: no status lines
};

// `words`: the command line without the program's name. Throws BadInput.
Options ParseOptions(const std::vector<std::string>& words);

// What --help prints.
std::string UsageText();

}  // namespace Agent
