// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Agent.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

#include "host/agent/EngineOptions.h"
#include "host/agent/Machine.h"
#include "host/agent/Settings.h"
#include "host/agent/StatusReport.h"
#include "host/agent/Tasks.h"
#include "host/agent/Watchdog.h"
#include "host/sdk/ContainerNames.h"
#include "host/sdk/Counters.h"
#include "host/sdk/Impairments.h"
#include "host/sdk/Limits.h"
#include "host/sdk/Realtime.h"
#include "sdk/LoggerUtils.h"
#include "sdk/StrUtils.h"

namespace Agent {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char policyId[] = "10001";
constexpr char featureName[] = "containerescape";

constexpr auto startBound = 30s;         // a machine so busy that the subscriptions take longer is not being watched
constexpr char alarmType[] = "2";        // of a report
constexpr auto collectorBound = 700ms;   // an engine that hangs must not delay detection by more
constexpr auto fileWatchBound = 5000ms;  // a tree without filesystem marks is walked, and may be large
// All that an alarm passes through. The collector is not among them: it reads what others write, and may take long.
constexpr std::array<const char*, 5> realtimeThreads{Tasks::trace, Tasks::fileNotify, Tasks::detection, Tasks::report,
                                                     "alarm_sink"};
constexpr auto flushBound = 200ms;
constexpr auto stopBound = 2s;
constexpr auto longestStandstill = 2s;  // of a task; it passes once a second and more
constexpr auto checkInterval = 1000ms;
constexpr auto trimInterval = 60s;  // of memory that a storm, or many containers at once, left in pieces
constexpr auto signalCheck = 20ms;  // while waiting for something that no descriptor tells
constexpr std::size_t maxWarnings = 20;

// Is called by the task that handles it. A queue keeps the order of what one thread sends, and no other.
class Call final : public Framework::Message {
public:
    explicit Call(std::function<void()> function) : function(std::move(function)) {}

    int MessageHandle(void* /*target*/) override
    {
        function();
        return 0;
    }
    unsigned long EventCount() const override { return 0; }

private:
    std::function<void()> function;
};

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

std::string Joined(const std::vector<std::string>& lines)
{
    constexpr std::size_t maxBytes = 1024;
    std::string text;
    for (const std::string& line : lines) {
        text += (text.empty() ? "" : "; ") + line;
    }
    return text.substr(0, maxBytes);
}

}  // namespace

HostAgent::HostAgent(StartPlan startPlan) : plan(std::move(startPlan))
{
    const Options& options = plan.options;
    SDK::Limits::Keep();
    // The application object has just given all loggers a channel of its own, one that escapes nothing.
    Poco::Logger::setChannel("", log);
    SDK::LoggerUtils::GetInstance()->SetLevel(options.logLevel);
    SDK::Realtime::Configure(options.realtimePercent, {realtimeThreads.begin(), realtimeThreads.end()});
    GiveSettings(plan, engine.config());
}

ExitCode HostAgent::Run()
{
    ExitCode code = failed;
    try {
        if (Start()) {
            Watch();
        }
        code = cleanStop;
    } catch (const BadInput& problem) {
        Say(std::string("refused: ") + problem.what());
        code = badInput;
    } catch (const std::exception& problem) {
        Say(std::string("failed: ") + problem.what());
    }
    return Stop(code);
}

Readiness HostAgent::Try(const std::function<void()>& meanwhile)
{
    try {
        Start();
        meanwhile();
    } catch (const std::exception&) {
        Stop(failed);
        throw;
    }
    Stop(cleanStop);
    return readiness;
}

bool HostAgent::Start()
{
    const std::vector<std::string> missing = MissingEngines(plan.engines);
    plan.warnings.insert(plan.warnings.end(), missing.begin(), missing.end());
    if (plan.options.command == Command::Run) {
        Warn(plan.warnings);
    }
    Progress::Show("loading the modules");
    for (const std::string& path : plan.modules) {
        std::string error;
        if (!engine.LoadModule(path, error)) {
            throw std::runtime_error("cannot load a module: " + error);
        }
    }
    // Containers that run already are announced when detection starts: their images must be known by then, or one that
    // is whitelisted would be watched.
    Progress::Show("asking the container engine");
    engine.WaitStarted(Tasks::collector, collectorBound);
    return Apply("ready");
}

bool HostAgent::Apply(const char* occasion)
{
    Progress::Show("starting detection");
    Tasks::GiveExceptions(engine, plan.options.exceptions);
    if (!engine.ApplyPolicy(policyId, featureName, plan.policy.text)) {
        throw std::runtime_error("no module took the policy");
    }
    if (!WaitForDetection()) {
        return false;
    }
    AwaitFileWatches();
    const bool isFirst = std::exchange(expectedTasks, engine.RunningTasks()).empty();
    readiness = Readiness::Look(engine, plan);
    telemetry.Applied(readiness, impairments.Lately());
    if (plan.options.command != Command::Run) {
        return true;
    }
    Warn(readiness.coverage.warnings);
    Say(std::string(occasion) + ": " + readiness.InWords());
    if (plan.options.requireAll && isFirst && !readiness.IsComplete()) {
        throw BadInput("not all of this is watched, which --require-all demands");
    }
    serviceManager.Ready();
    return true;
}

bool HostAgent::WaitForDetection()
{
    using StartResult = Framework::Engine::StartResult;
    const auto deadline = Clock::now() + startBound;
    while (true) {
        const StartResult result = engine.WaitStarted(Tasks::detection, signalCheck);
        if (result == StartResult::Running) {
            return true;
        }
        if (result != StartResult::Starting) {
            throw std::runtime_error("detection does not start, the log says why");
        }
        serviceManager.Alive();
        if (Clock::now() >= deadline) {
            throw std::runtime_error("detection does not start in time");
        }
        if (signals.Wait(0ms) == Signals::Event::Stop) {  // a reload is pointless now: the policy has just been read
            return false;
        }
    }
}

// Detection asks for its file watches without waiting for them. What its thread sends after them is handled when they
// are in place: only then is it true that the agent is ready.
void HostAgent::AwaitFileWatches()
{
    Framework::Task* detection = engine.FindTask(Tasks::detection);
    const auto inPlace = std::make_shared<std::promise<void>>();
    std::shared_ptr<Framework::Message> first = std::make_shared<Call>([detection, inPlace] {
        detection->SendDirectMsg(Tasks::fileNotify, new Call([inPlace] { inPlace->set_value(); }));
    });
    if (detection != nullptr && detection->EnqueueMsg(first) == 0) {
        inPlace->get_future().wait_for(fileWatchBound);
    }
}

void HostAgent::Watch()
{
    auto nextTrim = Clock::now() + trimInterval;
    while (true) {
        const Signals::Event event = signals.Wait(checkInterval);
        if (event == Signals::Event::Stop || (event == Signals::Event::Reload && !Reload())) {
            return;
        }
        CheckTasks();
        LookAfterItself();
        telemetry.Look(impairments.Lately(), Clock::now());
        if (Clock::now() >= nextTrim) {
            nextTrim = Clock::now() + trimInterval;
            ::malloc_trim(0);
        }
    }
}

bool HostAgent::Reload()
{
    Policy next;
    Options options;
    try {
        options = ParseOptions(plan.options.words);
        next = LoadPolicy(options.policyFile);
    } catch (const BadInput& problem) {
        Say(std::string("refused, the running one stays: ") + problem.what());
        return true;
    }
    plan.policy = std::move(next);
    engine.config().setString(SDK::Config::policySha256, plan.policy.sha256);
    TakeOver(options);
    LockAlarmsFile();
    return Apply("policy replaced");
}

// What changes while the agent runs.
void HostAgent::TakeOver(const Options& next)
{
    const std::set<std::string> changeable{"policy", "require-all", "log-level", "status-interval", exceptionsKey};
    std::vector<std::string> warnings = next.warnings;
    for (const auto& [name, value] : next.values) {
        const auto now = plan.options.values.find(name);
        if (!changeable.contains(name) && now != plan.options.values.end() && now->second.text != value.text) {
            warnings.push_back(name + " of the configuration takes effect at the next start");
        }
    }
    plan.options.exceptions = next.exceptions;
    plan.options.policyFile = next.policyFile;
    plan.options.requireAll = next.requireAll;
    plan.options.statusInterval = next.statusInterval;
    plan.options.logLevel = next.logLevel;
    SDK::LoggerUtils::GetInstance()->SetLevel(next.logLevel);
    Warn(warnings);
}

// The file may be another one by now.
void HostAgent::LockAlarmsFile()
{
    if (plan.options.alarmsFile.empty()) {
        return;
    }
    std::vector<std::string> warnings;
    plan.alarmsLock.Reset();  // or it would stand in its own way
    try {
        plan.alarmsLock = CheckAlarmsFile(plan.options.alarmsFile, warnings);
    } catch (const BadInput& problem) {
        warnings.emplace_back(problem.what());
    }
    Warn(warnings);
}

ExitCode HostAgent::Stop(ExitCode code)
{
    serviceManager.Stopping();
    Progress::Show("stopping");
    const Watchdog watchdog(stopBound, "the stop");
    const SDK::Realtime::Loan promptly;  // or a storm makes the stop take seconds
    try {
        telemetry.EndServing();
        engine.Stop();
        log->Flush(flushBound);
        const bool isRun = plan.options.command == Command::Run;
        telemetry.Close(!isRun ? "" : code == cleanStop ? "stopped: " : "stopped after a failure: ");
    } catch (const std::exception& problem) {
        Say(std::string("stop failed: ") + problem.what());
        code = failed;
    }
    return code;
}

// A task whose thread ended by itself leaves the agent blind or mute: better to end, and be started anew.
void HostAgent::CheckTasks() const
{
    const std::vector<std::string> running = engine.RunningTasks();
    for (const std::string& task : expectedTasks) {
        if (std::find(running.begin(), running.end(), task) == running.end()) {
            throw std::runtime_error("task " + task + " ended by itself");
        }
    }
}

void HostAgent::LookAfterItself()
{
    SDK::Limits::Restore();
    if (IsAtWork()) {
        serviceManager.Alive();
    }
    ReportImpairments();
}

// A stopped thread is not the whole process: a tracer can stop a single one.
bool HostAgent::IsAtWork() const
{
    bool isAtWork = true;
    for (const char* task : {Tasks::trace, Tasks::detection}) {
        if (Clock::now() - engine.LastProgress(task) > longestStandstill) {
            SDK::Impairments::Report("agent stopped", std::string("no progress in ") + task);
            isAtWork = false;
        }
    }
    return isAtWork;
}

void HostAgent::ReportImpairments()
{
    if (auto* trace = Tasks::Trace(engine); trace != nullptr) {
        if (const std::string found = Joined(trace->Repair()); !found.empty()) {
            SDK::Impairments::Report("tracefs tampered with", found);
        }
    }
    auto* names = dynamic_cast<::Engine::ContainerMetaInfo*>(engine.FindTask(Tasks::collector));
    impairments.Look(Clock::now(), SDK::Counters::Snapshot(), names);
}

void HostAgent::SendAlarm(const std::string& document)
{
    std::shared_ptr<Framework::Message> alarm = std::make_shared<Framework::DataMessage>(alarmType, document);
    if (Framework::Task* report = engine.FindTask(Tasks::report); report != nullptr) {
        report->EnqueueMsg(alarm);
    }
}

}  // namespace Agent
