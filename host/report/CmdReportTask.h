// SPDX-License-Identifier: Apache-2.0
// "cmd_comm_report_task": takes the commands meant for a management side. This agent has none, so it logs them.
#pragma once

#include "framework/Message.h"
#include "host/report/ReportTask.h"

namespace Engine {

class CmdReportTask : public ReportTask {
public:
    CmdReportTask();

    // 0, or -1 for a message that is no command.
    int HandleMsg(const Framework::Message* message) override;
};

}  // namespace Engine
