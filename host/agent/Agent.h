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
#include "host/agent/Readiness.h"
#include "host/agent/ServiceManager.h"
#include "host/agent/Signals.h"
#include "host/agent/StartPlan.h"
#include "host/agent/Telemetry.h"
#include "host/sdk/LineChannel.h"

namespace Agent {

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
    bool IsAtWork() const;
    void ReportImpairments();
    void SendAlarm(const std::string& document);

    StartPlan plan;
    Signals signals;
    ServiceManager serviceManager;
    Poco::AutoPtr<SDK::LineChannel> log{new SDK::LineChannel(STDERR_FILENO)};
    Framework::Engine engine;
    ImpairmentReport impairments{[this](const std::string& document) {
        SendAlarm(document);
    }};
    Telemetry telemetry{engine, plan};
    Readiness readiness;                     // as of the last policy
    std::vector<std::string> expectedTasks;  // that ran when the last policy had been applied
};

}  // namespace Agent
