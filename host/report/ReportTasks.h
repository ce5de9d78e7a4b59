// SPDX-License-Identifier: Apache-2.0
// The two tasks that take what leaves the agent. Both belong to no feature: they start at once and wait for no policy.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "framework/Message.h"
#include "framework/Task.h"
#include "host/report/AlarmFormat.h"
#include "host/report/AlarmSink.h"
#include "host/report/Exceptions.h"
#include "host/report/NameWait.h"
#include "host/report/SinkQueue.h"
#include "host/sdk/ContainerNames.h"
#include "host/sdk/InheritingMutex.h"

namespace Engine {

// "data_comm_report_task": makes a line of each alarm document (a DataMessage of type "2") and hands it to every sink,
// on the thread that raises the alarm, which is not to wait for another one to wake up; it never waits for a sink
// either. What is left for the task's own thread are the alarms that wait for names. Reports of other types have no
// receiver here and are logged.
class DataReportTask : public Framework::Task, public ExceptionTaker {
public:
    // The SHA-256 of the policy in force, for the envelope.
    using FindPolicy = std::function<std::string()>;

    // `sinks`: at least one.
    explicit DataReportTask(std::vector<std::unique_ptr<AlarmSink>> sinks,
                            AlarmFormat format = AlarmFormat(AlarmFormat::Form::Plain), FindPolicy findPolicy = {},
                            bool showExcepted = false);

    void TakeExceptions(std::vector<SDK::ExceptionRule> rules) override { exceptions.Replace(std::move(rules)); }

    // Of an alarm 0 when it is on its way, also if that ends with an exception; -1 when it is not a JSON object or
    // comes after the end, which is counted as lost, and for one that an exception for a program holds for, whether it
    // is shown or not (Exceptions::Match::mustBeRefused). Any thread.
    int EnqueueMsg(std::shared_ptr<Framework::Message>& message) override;
    // As EnqueueMsg; -1 for a message that is no report.
    int HandleMsg(const Framework::Message* message) override;
    // Makes an alarm's line of an example and throws it away: what runs for the first time, in the libraries that all
    // threads share, takes several times as long.
    int Init() override;
    int Run() override;
    // Takes no more alarms, then gives all sinks together half a second to write what they hold.
    int UnInit() override;

private:
    int Take(const Framework::DataMessage& message);
    // Sets and counts the exception that holds for the alarm, if one does.
    std::optional<Exceptions::Match> Except(Alarm& alarm) const;
    // Passes it on or lets it wait. -1 after the end.
    int Deliver(Alarm alarm);
    // All that wait, or those that need not any more. The lock is held.
    void Release(const SDK::ContainerNames* names);
    void Report(const Alarm& alarm, const SDK::ContainerNames* names);

    const FindPolicy findPolicy;
    const bool showExcepted;
    Exceptions exceptions;
    SDK::InheritingMutex mutex;                     // of the members below
    std::vector<std::unique_ptr<SinkQueue>> sinks;  // none after the end
    NameWait unnamed;
    AlarmFormat format;
};

// "cmd_comm_report_task": takes the commands meant for a management side. This agent has none, so it logs them.
class CmdReportTask : public Framework::Task {
public:
    CmdReportTask();

    // 0, or -1 for a message that is no command.
    int HandleMsg(const Framework::Message* message) override;
};

}  // namespace Engine
