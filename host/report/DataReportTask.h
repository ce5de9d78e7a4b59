// SPDX-License-Identifier: Apache-2.0
// "data_comm_report_task": takes the agent's reports and hands each alarm document to every sink.
#pragma once

#include <memory>
#include <vector>

#include "framework/Message.h"
#include "host/report/AlarmSink.h"
#include "host/report/ReportTask.h"
#include "host/report/SinkQueue.h"

namespace Engine {

// A DataMessage of type "2" is an alarm document; reports of other types have no receiver here and are logged.
// Thread: the task's own, which never waits for a sink.
class DataReportTask : public ReportTask {
public:
    explicit DataReportTask(std::vector<std::unique_ptr<AlarmSink>> sinks);

    // Counts an alarm that the task's own queue refuses as lost.
    int EnqueueMsg(std::shared_ptr<Framework::Message>& message) override;
    // 0, or -1 for a message that is no report and for an alarm that is not a JSON object.
    int HandleMsg(const Framework::Message* message) override;
    // Gives all sinks together half a second to write what they hold.
    int UnInit() override;

private:
    int Report(const Framework::DataMessage& alarm);

    std::vector<std::unique_ptr<SinkQueue>> sinks;
};

}  // namespace Engine
