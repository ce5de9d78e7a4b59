// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Settings.h"

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/agent/ExceptionRules.h"
#include "host/sdk/Config.h"
#include "host/sdk/EngineAddress.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

Json::Value ListOf(const std::vector<std::string>& texts)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

// `texts`: "KEY=VALUE".
Json::Value LabelsOf(const std::vector<std::string>& texts)
{
    Json::Value labels(Json::objectValue);
    for (const std::string& text : texts) {
        const std::size_t end = text.find('=');
        labels[text.substr(0, end)] = text.substr(end + 1);
    }
    return labels;
}

}  // namespace

void GiveSettings(const StartPlan& plan, Poco::Util::AbstractConfiguration& settings)
{
    const Options& options = plan.options;
    if (plan.engines.empty() || plan.engines.front().isAsked) {
        settings.setString(SDK::Config::engines, SDK::EngineAddress::Join(plan.engines));
    }
    if (!options.alarmsFile.empty()) {
        settings.setString(SDK::Config::alarmsFile, options.alarmsFile);
        settings.setUInt64(SDK::Config::alarmsMaxBytes, std::uint64_t{options.alarmsMaxMb} * 1'000'000);
        settings.setUInt(SDK::Config::alarmsKept, options.alarmsKept);
    }
    settings.setString(SDK::Config::alarmsFormat, options.alarmFormat);
    settings.setString(SDK::Config::redactions, SDK::JsonUtils::JsonToString(ListOf(options.redactions)));
    settings.setString(SDK::Config::hostLabels, SDK::JsonUtils::JsonToString(LabelsOf(options.hostLabels)));
    settings.setBool(SDK::Config::describePrograms,
                     options.alarmFormat == "envelope" || TellApartPrograms(options.exceptions));
    settings.setBool(SDK::Config::showExcepted, options.showExcepted);
    settings.setString(SDK::Config::policySha256, plan.policy.sha256);
    settings.setString(SDK::Config::syscallSource, options.syscallSource);
    if (options.bufferKb != 0) {
        settings.setUInt(SDK::Config::traceBufferKb, options.bufferKb);
    }
}

}  // namespace Agent
