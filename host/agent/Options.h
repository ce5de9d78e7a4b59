// SPDX-License-Identifier: Apache-2.0
// The command line.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "host/agent/ExceptionRules.h"
#include "host/sdk/Config.h"

namespace Agent {

enum class Command { Run, Check, SelfTest, Attack, Explain, ShowConfiguration, Status, Tune };

struct Options {
    Command command = Command::Run;
    std::string answer;      // to a question for help or the version: to be printed, nothing is run; else empty
    std::string policyFile;  // empty, for a check only: no entries
    std::string alarmsFile;  // empty: standard output
    std::string alarmFormat = "auto";
    unsigned int alarmsMaxMb = 0;         // size at which that file is renamed; 0: never
    unsigned int alarmsKept = 5;          // renamed ones
    std::vector<std::string> engines;     // as given: SDK::EngineAddress::Text, or noEngine
    std::vector<std::string> redactions;  // SDK::Redaction's expressions
    std::vector<std::string> hostLabels;  // "KEY=VALUE"
    std::string dockerSocket;             // a path or noEngine; empty: not given
    std::string logLevel = "notice";
    std::string modulesDir;  // empty: where the agent is installed, see DefaultModulesDir
    bool namespaceCheck = false;
    bool showExcepted = false;
    unsigned int bufferKb = 0;  // KiB for each CPU; 0: the trace module's own choice
    std::string syscallSource = "auto";
    unsigned int realtimePercent = 70;       // of one CPU; 0: normal priority
    std::string statsFile;                   // empty: none
    std::chrono::seconds statusInterval{0};  // 0: no status lines
    bool requireAll = false;                 // not to start where something that is listed is not watched
    std::string attackedDirectory;           // of the self-test's own attack
    bool asJson = false;                     // a check's answer, or a status
    std::string metricsAddress;              // as MetricsAddress::Parse takes it; empty: none
    std::string configurationFile;           // empty: DefaultConfiguration, if that is there; or noConfiguration
    ExceptionRules exceptions;               // of the configuration
    std::string inspectedAlarms;             // by the command tune

    std::vector<std::string> words;     // of the command line, without the program's name
    std::vector<std::string> warnings;  // what is doubtful in the configuration
    // What run, check, status and config show go by, by the options' names without their dashes.
    struct Value {
        std::string text;
        std::string origin;  // "command line", the place in the configuration, or "default"
    };
    std::map<std::string, Value> values;
};

inline constexpr char noConfiguration[] = "none";

// The path of the configuration that is read without being asked for.
const char* DefaultConfiguration();

// `words`: the command line without the program's name. What it does not set, the configuration file does. Throws
// BadInput.
Options ParseOptions(std::vector<std::string> words);

// The values with their origins, a line for each.
std::string ShowValues(const Options& options);

}  // namespace Agent
