// SPDX-License-Identifier: Apache-2.0
// libreport_module.so: the agent's two report tasks.
#include <Poco/Util/Application.h>

#include <unistd.h>

#include <memory>

#include "framework/Module.h"
#include "host/report/ReportLog.h"
#include "host/report/ReportTasks.h"
#include "host/report/Sinks.h"
#include "host/sdk/Config.h"
#include "host/sdk/JsonMembers.h"

namespace Engine {

namespace {

std::string PolicyInForce()
{
    return Poco::Util::Application::instance().config().getString(SDK::Config::policySha256, "");
}

AlarmEnvelope::Settings EnvelopeSettings(const Poco::Util::AbstractConfiguration& settings)
{
    const auto parsed = [&settings](const char* key) {
        return SDK::JsonMembers::Parse(settings.getRawString(key, "")).value_or(Json::Value{});
    };
    std::vector<std::string> expressions;
    for (const Json::Value& expression : parsed(SDK::Config::redactions)) {
        expressions.push_back(expression.asString());
    }
    const Json::Value labels = parsed(SDK::Config::hostLabels);
    return {labels.isObject() ? labels : Json::Value(Json::objectValue), SDK::Redaction(expressions)};
}

class ReportModule : public Framework::Module {
public:
    ReportModule() : Framework::Module("report_module") {}

    int Init() override
    {
        commands = std::make_unique<CmdReportTask>();
        const auto& settings = Poco::Util::Application::instance().config();
        const bool isTerminal = !settings.has(SDK::Config::alarmsFile) && ::isatty(STDOUT_FILENO) == 1;
        data = std::make_unique<DataReportTask>(
            MakeSinks(settings),
            AlarmFormat(AlarmFormat::Parse(settings.getString(SDK::Config::alarmsFormat, "auto"), isTerminal),
                        EnvelopeSettings(settings)),
            PolicyInForce, settings.getBool(SDK::Config::showExcepted, false));
        if (RegisterTask(commands.get(), false) != 0 || RegisterTask(data.get(), false) != 0) {
            ReportLog::Error("report tasks refused: another module has their names");
            return -1;
        }
        return Framework::Module::Init();
    }

    int UnInit() override
    {
        UnRegisterTask("data_comm_report_task");
        UnRegisterTask("cmd_comm_report_task");
        return Framework::Module::UnInit();
    }

private:
    std::unique_ptr<CmdReportTask> commands;
    std::unique_ptr<DataReportTask> data;
};

}  // namespace

}  // namespace Engine

extern "C" Framework::Module* CreateModule()
{
    return std::make_unique<Engine::ReportModule>().release();
}
