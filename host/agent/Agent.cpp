// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Agent.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <set>

#include "host/agent/Machine.h"
#include "host/agent/StatusReport.h"
#include "host/agent/Watchdog.h"
#include "host/ftrace/TraceStatus.h"
#include "host/sdk/Counters.h"
#include "host/sdk/LineChannel.h"
#include "sdk/LoggerUtils.h"
#include "sdk/StrUtils.h"

namespace Agent {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char policyId[] = "10001";
constexpr char featureName[] = "containerescape";
constexpr char detectionTask[] = "container_escape_detect_task";

constexpr auto startBound = 30s;  // a machine so busy that the subscriptions take longer is not being watched
constexpr char traceTask[] = "ftrace_task";
constexpr char collectorTask[] = "container_collect_task";
constexpr auto collectorBound = 1500ms;  // one time-out of an engine that hangs, and some more
constexpr char fileNotifyTask[] = "filenotify_task";
constexpr auto fileWatchBound = 5000ms;  // a tree without filesystem marks is walked, and may be large
constexpr auto stopBound = 2s;
constexpr auto checkInterval = 1000ms;
constexpr auto signalCheck = 20ms;  // while waiting for something that no descriptor tells
constexpr std::size_t maxWarnings = 20;

void Warn(const std::vector<std::string>& lines)
{
    const std::size_t shown = std::min(lines.size(), maxWarnings);
    for (std::size_t i = 0; i < shown; ++i) {
        Say("warning: " + lines[i]);
    }
    if (shown < lines.size()) {
        Say(SDK::StrUtils::Format("warning: and %zu more like these", lines.size() - shown));
    }
}

// Of `calls`, those whose entry detection has asked for, and which the kernel records.
std::set<std::string> RecordedCalls(Framework::Engine& engine, const std::set<std::string>& calls)
{
    auto* status = dynamic_cast<::Engine::TraceStatus*>(engine.FindTask(traceTask));
    const std::set<std::string> events = status != nullptr ? status->RecordedEvents() : std::set<std::string>{};
    std::set<std::string> recorded;
    std::copy_if(calls.begin(), calls.end(), std::inserter(recorded, recorded.end()),
                 [&events](const std::string& call) { return events.contains("syscalls:sys_enter_" + call); });
    return recorded;
}

// Calls that have a trace event which the detection task has not asked for: the module knows no such call.
std::vector<std::string> UnwatchedCalls(const Policy& policy, const std::set<std::string>& enabled)
{
    std::vector<std::string> lines;
    for (const std::string& call : TraceableCalls(policy, CallEventsDir())) {
        if (!enabled.contains(call)) {
            lines.push_back("call \"" + call + "\": the detection module does not know it, it is not watched");
        }
    }
    return lines;
}

}  // namespace

StartPlan MakePlan(const Options& options)
{
    StartPlan plan{options, {}, ModulePaths(options)};
    try {
        plan.policy = ParsePolicy(ReadPolicyFile(options.policyFile));
    } catch (const BadInput& problem) {
        throw BadInput("policy " + options.policyFile + ": " + problem.what());
    }
    if (!options.alarmsFile.empty()) {
        CheckAlarmsFile(options.alarmsFile);
    }
    if (!options.statsFile.empty()) {
        if (const std::error_code error = WriteStatistics(options.statsFile, {})) {
            throw BadInput("statistics file " + options.statsFile + ": " + error.message());
        }
    }
    return plan;
}

HostAgent::HostAgent(StartPlan startPlan) : plan(std::move(startPlan))
{
    const Options& options = plan.options;
    // The application object has just given all loggers a channel of its own, one that escapes nothing.
    Poco::Logger::setChannel("", new SDK::LineChannel(STDERR_FILENO));
    SDK::LoggerUtils::GetInstance()->SetLevel(options.logLevel);
    auto& settings = engine.config();
    settings.setString(SDK::Config::dockerSocket, options.dockerSocket);
    settings.setString(SDK::Config::logLevel, options.logLevel);
    if (!options.alarmsFile.empty()) {
        settings.setString(SDK::Config::alarmsFile, options.alarmsFile);
    }
    settings.setString(SDK::Config::syscallSource, options.syscallSource);
    if (options.bufferKb != 0) {
        settings.setUInt(SDK::Config::traceBufferKb, options.bufferKb);
    }
}

ExitCode HostAgent::Run()
{
    ExitCode code = failed;
    try {
        const Outcome outcome = Start();
        code = outcome == Outcome::Started ? Watch() : outcome == Outcome::StopAsked ? cleanStop : failed;
    } catch (const std::exception& problem) {
        Say(std::string("failed: ") + problem.what());
    }
    return Stop(code);
}

HostAgent::Outcome HostAgent::Start()
{
    if (!EngineAnswers(plan.options.dockerSocket)) {
        Say("warning: no container engine at " + plan.options.dockerSocket +
            ", alarms go without names of containers and images until there is one");
    }
    if (!LoadModules()) {
        return Outcome::Failed;
    }
    // Containers that run already are announced when detection starts: their images must be known by then, or one that
    // is whitelisted would be watched.
    engine.WaitStarted(collectorTask, collectorBound);
    const Outcome outcome = Apply(plan.policy);
    if (outcome == Outcome::Started) {
        Announce("ready");
    }
    return outcome;
}

bool HostAgent::LoadModules()
{
    for (const std::string& path : plan.modules) {
        std::string error;
        if (!engine.LoadModule(path, error)) {
            Say("cannot load a module: " + error);
            return false;
        }
    }
    return true;
}

HostAgent::Outcome HostAgent::Apply(const Policy& policy)
{
    if (!engine.ApplyPolicy(policyId, featureName, policy.text)) {
        Say("no module took the policy");
        return Outcome::Failed;
    }
    const Outcome outcome = WaitForDetection();
    if (outcome == Outcome::Started) {
        AwaitFileWatches();
        expectedTasks = engine.RunningTasks();
        WarnAbout(policy);
    }
    return outcome;
}

HostAgent::Outcome HostAgent::WaitForDetection()
{
    using StartResult = Framework::Engine::StartResult;
    const auto deadline = Clock::now() + startBound;
    while (true) {
        const StartResult result = engine.WaitStarted(detectionTask, signalCheck);
        if (result == StartResult::Running) {
            return Outcome::Started;
        }
        if (result != StartResult::Starting || Clock::now() >= deadline) {
            Say(result == StartResult::Starting ? "detection does not start in time"
                                                : "detection does not start, the log says why");
            return Outcome::Failed;
        }
        if (signals.Wait(0ms) == Signals::Event::Stop) {  // a reload is pointless now: the policy has just been read
            return Outcome::StopAsked;
        }
    }
}

// Detection asks for its file watches without waiting for them. What follows them in the same queue is answered when
// they are in place: only then is it true that the agent is ready.
void HostAgent::AwaitFileWatches()
{
    std::string reply;
    if (Framework::Task* detection = engine.FindTask(detectionTask); detection != nullptr) {
        detection->SyncSendDirectMsg(fileNotifyTask, new Framework::Message, reply, fileWatchBound.count(), 1);
    }
}

ExitCode HostAgent::Watch()
{
    const std::chrono::milliseconds interval = plan.options.statusInterval;
    auto nextStatus = Clock::now() + interval;
    while (true) {
        const Signals::Event event = signals.Wait(checkInterval);
        if (event == Signals::Event::Stop) {
            return cleanStop;
        }
        if (event == Signals::Event::Reload) {
            const Outcome outcome = Reload();
            if (outcome != Outcome::Started) {
                return outcome == Outcome::StopAsked ? cleanStop : failed;
            }
        }
        if (!TasksStillRun()) {
            return failed;
        }
        if (interval > 0ms && Clock::now() >= nextStatus) {
            nextStatus = Clock::now() + interval;
            ReportStatus();
        }
    }
}

// Started: also when the new policy is refused, the running one stays.
HostAgent::Outcome HostAgent::Reload()
{
    Policy next;
    try {
        next = ParsePolicy(ReadPolicyFile(plan.options.policyFile));
    } catch (const BadInput& problem) {
        Say("policy " + plan.options.policyFile + " refused, the running one stays: " + problem.what());
        return Outcome::Started;
    }
    const Outcome outcome = Apply(next);
    if (outcome == Outcome::Started) {
        plan.policy = std::move(next);
        Announce("policy replaced");
    }
    return outcome;
}

ExitCode HostAgent::Stop(ExitCode code)
{
    const Watchdog watchdog(stopBound, "the stop");
    try {
        engine.Stop();
        const auto counters = SDK::Counters::Snapshot();
        if (!plan.options.statsFile.empty()) {
            if (const std::error_code error = WriteStatistics(plan.options.statsFile, counters)) {
                Say("statistics file " + plan.options.statsFile + ": " + error.message());
            }
        }
        Say((code == cleanStop ? "stopped: " : "stopped after a failure: ") + StatusLine(counters));
    } catch (const std::exception& problem) {
        Say(std::string("stop failed: ") + problem.what());
        code = failed;
    }
    return code;
}

// A task whose thread ended by itself leaves the agent blind or mute: better to end, and be started anew.
bool HostAgent::TasksStillRun() const
{
    const std::vector<std::string> running = engine.RunningTasks();
    for (const std::string& task : expectedTasks) {
        if (std::find(running.begin(), running.end(), task) == running.end()) {
            Say("task " + task + " ended by itself");
            return false;
        }
    }
    return true;
}

void HostAgent::Announce(const char* what)
{
    const Policy& policy = plan.policy;
    const std::string engineText =
        EngineAnswers(plan.options.dockerSocket) ? "engine " + plan.options.dockerSocket : "no engine";
    Say(SDK::StrUtils::Format("%s: watching %zu of %zu listed calls, %zu of %zu listed directories, %s, %zu containers",
                              what, RecordedCalls(engine, policy.calls).size(), policy.calls.size(),
                              policy.directories.size() - UselessDirectories(policy).size(), policy.directories.size(),
                              engineText.c_str(), CountContainers()));
}

void HostAgent::ReportStatus() const
{
    const auto counters = SDK::Counters::Snapshot();
    Say("status: " + StatusLine(counters));
    if (plan.options.statsFile.empty()) {
        return;
    }
    if (const std::error_code error = WriteStatistics(plan.options.statsFile, counters)) {
        Say("warning: statistics file " + plan.options.statsFile + ": " + error.message());
    }
}

void HostAgent::WarnAbout(const Policy& policy)
{
    std::vector<std::string> lines;
    for (const std::string& key : policy.unknownKeys) {
        lines.push_back("policy key " + key + " is unknown and ignored");
    }
    Warn(lines);
    // The kernel has some calls' events under other names: what is recorded needs no look at the names.
    const std::set<std::string> recorded = RecordedCalls(engine, policy.calls);
    Policy others = policy;
    std::erase_if(others.calls, [&recorded](const std::string& call) { return recorded.contains(call); });
    Warn(UselessCalls(others, CallEventsDir()));
    Warn(UselessDirectories(policy));
    Warn(UnwatchedCalls(others, recorded));
}

}  // namespace Agent
