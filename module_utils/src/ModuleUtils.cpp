// SPDX-License-Identifier: Apache-2.0
#include "ModuleUtils.h"

#include <Poco/Util/Application.h>

#include <new>

#include "LogSite.h"
#include "framework/Engine.h"
#include "sdk/StrUtils.h"

namespace Engine {

namespace {

constexpr char commandTask[] = "cmd_comm_report_task";
constexpr char dataTask[] = "data_comm_report_task";
constexpr char alarmType[] = "2";

// What one send function says, and from which line: no memory, refused by the framework, queued.
struct Report {
    SDK::LogText noMessage;
    SDK::LogText refused;
    SDK::LogText queued;
};

SDK::LogText Line(int line, const char* text)
{
    return {SDK::At{"ModuleUtils", line}, text};
}

// `subject`: what the lines name the message by. Takes the message over.
bool SendReported(const char* taskName, Framework::Message* message, const std::string& subject, std::size_t length,
                  const Report& report)
{
    if (message == nullptr) {
        SDK::RootLog::Error(report.noMessage, subject, length);
        return false;
    }
    if (!SendMessage(taskName, message)) {
        SDK::RootLog::Error(report.refused, subject, length);
        return false;
    }
    SDK::RootLog::Information(report.queued, subject, length);
    return true;
}

}  // namespace

Framework::Task* FindAgentTask(const std::string& taskName)
{
    auto* engine = dynamic_cast<Framework::Engine*>(&Poco::Util::Application::instance());
    return engine == nullptr ? nullptr : engine->FindTask(taskName);
}

bool SendMessage(const std::string& taskName, Framework::Message* message)
{
    Framework::Task* task = FindAgentTask(taskName);
    if (task == nullptr) {
        // One text for every kind of message: operators' filters know it by these words.
        SDK::RootLog::Error(SDK::At{"ModuleUtils", 36}, "send cmd message failed. taskPtr=null");
        return false;
    }
    return task->SendAgileMsg(task, message) != 0;  // takes ownership; non-zero means accepted
}

// A message whose task does not exist is not released: the header says so.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)

bool SendCmdMessage(const std::string& msgId, const std::string& content)
{
    return SendReported(commandTask, new (std::nothrow) Framework::CmdMessage(msgId, content), msgId, content.size(),
                        {Line(53, "send cmd message failed. msgId=%s, msgLen=%?u, message=null"),
                         Line(60, "send cmd message to queue failed. msgId=%s, msgLen=%?u"),
                         Line(63, "send cmd message to queue success. msgId=%s, msgLen=%?u")});
}

bool SendDataMessage(const std::string& event, const std::string& content)
{
    return SendReported(dataTask, new Framework::DataMessage(event, content), event, content.size(),
                        {Line(78, "send data message failed. event=%s, msgLen=%?u, message=null"),
                         Line(85, "send data message to queue failed. event=%s, msgLen=%?u"),
                         Line(88, "send data message to queue success. event=%s, msgLen=%?u")});
}

bool SendAlarmMessage(const std::string& event, const std::string& content)
{
    return SendReported(dataTask, new Framework::DataMessage(alarmType, content), event, content.size(),
                        {Line(114, "send alarm message failed. event=%s, msgLen=%?u, message=null"),
                         Line(121, "send alarm message to queue failed. event=%s, msgLen=%?u"),
                         Line(124, "send alarm message to queue success. event=%s, msgLen=%?u")});
}

// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

bool SendUnrepairableException(const std::string& name, const std::string& exception)
{
    return SendCmdMessage("feature_exception_1", SDK::StrUtils::Format("{\"name\":\"%s\", \"exception\":\"%s\"}",
                                                                       name.c_str(), exception.c_str()));
}

}  // namespace Engine
