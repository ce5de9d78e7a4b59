// SPDX-License-Identifier: Apache-2.0
// The agent's life: load the modules, apply the policy, watch, read the policy again when asked, stop.
#pragma once

#include <Poco/AutoPtr.h>
#include <unistd.h>

#include <chrono>
#include <functional>
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

// What is watched.
struct Readiness {
    std::size_t listedCalls = 0;
    std::size_t listedDirectories = 0;
    PolicyCoverage coverage;
    std::string engine;  // the socket of the container engine that answers; empty: none does
    std::size_t containers = 0;
    std::string callPlace;              // where system calls are recorded; empty: nowhere
    std::vector<std::string> warnings;  // of the start and of the policy

    // "watching 2 of 2 listed calls, ..."
    std::string InWords() const;

    // Whether everything that the policy lists is watched, and the detectors that need no entry have all their calls.
    bool IsComplete() const;
};

// Throws BadInput. Touches nothing but the files for alarms and statistics, which must be writable.
StartPlan MakePlan(const Options& options);

// Thread: the main thread, made before any other. One in a process: the engine is the application object.
class HostAgent {
public:
    explicit HostAgent(StartPlan plan);

    // From start to stop. Never throws.
    ExitCode Run();

    // Starts, does `meanwhile` and stops. Throws std::runtime_error, BadInput among them: it does not start; and what
    // `meanwhile` throws.
    Readiness Try(const std::function<void()>& meanwhile = [] {});

private:
    // All throw std::runtime_error, BadInput with --require-all, when the agent cannot go on. Those that return bool:
    // false when a stop was asked for meanwhile. `occasion` begins the line that says what is watched now.
    bool Start();
    bool Apply(const char* occasion);
    bool WaitForDetection();
    bool Reload();  // a policy that is refused changes nothing
    void TakeOver(const Options& next);
    void LockAlarmsFile();
    void AwaitFileWatches();
    void Watch();
    ExitCode Stop(ExitCode code);

    void CheckTasks() const;
    void LookAfterItself();
    std::chrono::milliseconds StatusInterval() const;
    bool IsAtWork() const;
    void ReportImpairments();
    void SendAlarm(const std::string& document);
    Readiness Look();
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
    Readiness readiness;                     // as of the last policy
    std::vector<std::string> expectedTasks;  // that ran when the last policy had been applied
};

}  // namespace Agent
