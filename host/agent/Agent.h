// SPDX-License-Identifier: Apache-2.0
// The agent's life: load the modules, apply the policy, watch, read the policy again when asked, stop.
#pragma once

#include <Poco/AutoPtr.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "framework/Engine.h"
#include "host/agent/Console.h"
#include "host/agent/ImpairmentReport.h"
#include "host/agent/Options.h"
#include "host/agent/PolicyFile.h"
#include "host/agent/ServiceManager.h"
#include "host/agent/Signals.h"
#include "host/sdk/FileDescriptor.h"
#include "host/sdk/LineChannel.h"

namespace Agent {

// Everything an operator can get wrong, checked before anything starts.
struct StartPlan {
    Options options;
    Policy policy;
    std::vector<std::string> modules;   // paths of the shared libraries, in load order
    std::vector<std::string> warnings;  // what goes on with a doubt
    SDK::FileDescriptor alarmsLock;     // of the alarms file while the agent runs
};

// Throws BadInput. Touches nothing but the files for alarms and statistics, which must be writable.
StartPlan MakePlan(const Options& options);

// Thread: the main thread, made before any other. One in a process: the engine is the application object.
class HostAgent {
public:
    explicit HostAgent(StartPlan plan);

    // From start to stop. Never throws.
    ExitCode Run();

private:
    // All throw std::runtime_error when the agent cannot go on. Those that return bool: false when a stop was asked for
    // meanwhile. `occasion` begins the line that says what is watched now.
    bool Start();
    bool Apply(const char* occasion);
    bool WaitForDetection();
    bool Reload();  // a policy that is refused changes nothing
    void AwaitFileWatches();
    void Watch();
    ExitCode Stop(ExitCode code);

    void CheckTasks() const;
    void LookAfterItself();
    bool IsAtWork() const;
    void ReportImpairments();
    void SendAlarm(const std::string& document);
    void Announce(const char* occasion, const PolicyCoverage& coverage);
    void ReportCounters(const char* occasion) const;
    void KeepStatistics() const;  // if they are asked for

    StartPlan plan;
    Signals signals;
    ServiceManager serviceManager;
    Poco::AutoPtr<SDK::LineChannel> log{new SDK::LineChannel(STDERR_FILENO)};
    Framework::Engine engine;
    ImpairmentReport impairments{[this](const std::string& document) {
        SendAlarm(document);
    }};
    std::vector<std::string> expectedTasks;  // that ran when the last policy had been applied
};

}  // namespace Agent
