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

namespace Engine {

// "data_comm_report_task": hands each alarm document (a DataMessage of type "2") to every sink. Reports of other types
// have no receiver here and are logged. Its thread never waits for a sink.
class DataReportTask : public Framework::Task, public ExceptionTaker {
public:
    // Null while there are none: they come and go with their module.
    using FindNames = std::function<const SDK::ContainerNames*()>;

    // The SHA-256 of the policy in force, for the envelope.
    using FindPolicy = std::function<std::string()>;

    // `sinks`: at least one.
    explicit DataReportTask(std::vector<std::unique_ptr<AlarmSink>> sinks, FindNames findNames = {},
                            AlarmFormat format = AlarmFormat(AlarmFormat::Form::Plain), FindPolicy findPolicy = {},
                            bool showExcepted = false);

    void TakeExceptions(std::vector<SDK::ExceptionRule> rules) override { exceptions.Replace(std::move(rules)); }

    // Keeps the time of the event, and looks at the alarm's process if the form or an exception wants it: on the thread
    // that raises the alarm, as early as can be. Counts an alarm that the queue of the task refuses as lost. -1 as well
    // for one that an exception for a program holds for, whether it is shown or not (Exceptions::Match::mustBeRefused).
    int EnqueueMsg(std::shared_ptr<Framework::Message>& message) override;
    // 0, or -1 for a message that is no report and for an alarm that is not a JSON object.
    int HandleMsg(const Framework::Message* message) override;
    // Makes an alarm's line of an example and throws it away: what runs for the first time, in the libraries that all
    // threads share, takes several times as long.
    int Init() override;
    int Run() override;
    // Handles what is still queued, then gives all sinks together half a second to write what they hold.
    int UnInit() override;

private:
    const SDK::ContainerNames* Names() const { return findNames ? findNames() : nullptr; }
    // `exception`: that holds for the alarm; empty: none does.
    void Report(const Alarm& alarm, const AlarmContext* context, const std::string& exception);
    // Of an alarm that has waited for the name of its container.
    void ReportNamed(const Alarm& alarm, const AlarmContext* context);

    std::vector<std::unique_ptr<SinkQueue>> sinks;
    FindNames findNames;
    FindPolicy findPolicy;
    NameWait unnamed;
    AlarmFormat format;
    Exceptions exceptions;
    bool showExcepted;
};

// "cmd_comm_report_task": takes the commands meant for a management side. This agent has none, so it logs them.
class CmdReportTask : public Framework::Task {
public:
    CmdReportTask();

    // 0, or -1 for a message that is no command.
    int HandleMsg(const Framework::Message* message) override;
};

}  // namespace Engine
