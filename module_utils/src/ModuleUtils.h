// SPDX-License-Identifier: Apache-2.0
// How a module finds the agent's tasks and hands finished reports to the two reporting tasks.
//
// Stateless; any thread. A message belongs to the framework once it is built: nothing here releases it, not even when
// it could not be queued. Everything is logged to the agent's root logger. A content is passed on as it is, whatever
// it holds.
#pragma once

#include <string>

#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

// The task registered under that name anywhere in the agent. Null when there is none, or when the running application
// is not the agent. REQUIRES: an application (Poco::Util::Application) exists.
Framework::Task* FindAgentTask(const std::string& taskName);

// True when the framework accepted the message. False, with an error line, when there is no such task.
bool SendMessage(const std::string& taskName, Framework::Message* message);

// A command, to "cmd_comm_report_task".
bool SendCmdMessage(const std::string& msgId, const std::string& content);

// A report of type `event`, to "data_comm_report_task".
bool SendDataMessage(const std::string& event, const std::string& content);

// An alarm document, to "data_comm_report_task". Its type is always "2"; `event` only names it in the log.
bool SendAlarmMessage(const std::string& event, const std::string& content);

// Tells the management side that something failed for good. The two texts go into the command as they are, unescaped.
bool SendUnrepairableException(const std::string& name, const std::string& exception);

}  // namespace Engine
