// SPDX-License-Identifier: Apache-2.0
#include "host/report/CmdReportTask.h"

#include "host/report/ReportLog.h"

namespace Engine {

namespace {

constexpr std::size_t maxLoggedBytes = 1024;

std::string Shortened(const std::string& text)
{
    return text.size() <= maxLoggedBytes ? text : text.substr(0, maxLoggedBytes) + "...";
}

}  // namespace

CmdReportTask::CmdReportTask() : ReportTask("cmd_comm_report_task")
{
}

int CmdReportTask::HandleMsg(const Framework::Message* message)
{
    const auto* command = dynamic_cast<const Framework::CmdMessage*>(message);
    if (command == nullptr) {
        return -1;
    }
    // Foreign bytes in both texts: the log's channel escapes them.
    ReportLog::Notice("command %s: %s", Shortened(command->Id()), Shortened(command->Content()));
    return 0;
}

}  // namespace Engine
