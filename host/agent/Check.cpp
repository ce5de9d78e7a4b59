// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Check.h"

#include <json/json.h>
#include <sys/utsname.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "host/agent/Agent.h"
#include "host/agent/Machine.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

struct Finding {
    std::string error;  // why it would not start; empty: it would
    Readiness readiness;
};

Finding Try(const Options& options)
{
    Finding found;
    const Progress progress;
    try {
        Progress::Show("reading the policy");
        StartPlan plan = MakePlan(options);
        if (const std::string reason = WhyNotHere(); !reason.empty()) {
            throw BadInput(reason);
        }
        found.readiness = HostAgent(std::move(plan)).Try();
    } catch (const std::exception& problem) {
        found.error = problem.what();
    }
    return found;
}

std::string Kernel()
{
    utsname name{};
    ::uname(&name);
    return std::string(name.sysname) + " " + name.release + " " + name.machine;
}

std::string InWords(const Finding& found, const ExceptionRules& exceptions)
{
    std::string text = "kernel: " + Kernel() + "\n";
    if (!found.error.empty()) {
        return text + Line("error: " + found.error) + "It would not start.\n";
    }
    text += Line(found.readiness.InWords());
    for (const SDK::ExceptionRule& rule : exceptions) {
        text += Line(Describe(rule));
    }
    for (const std::string& warning : found.readiness.warnings) {
        text += Line("warning: " + warning);
    }
    const std::size_t warnings = found.readiness.warnings.size();
    const std::string count = std::to_string(warnings) + (warnings == 1 ? " warning" : " warnings");
    return text + "It would start" + (warnings == 0 ? "" : ", with " + count) + ".\n";
}

Json::Value Counts(std::size_t watched, std::size_t listed)
{
    Json::Value counts;
    counts["watched"] = static_cast<Json::UInt64>(watched);
    counts["listed"] = static_cast<Json::UInt64>(listed);
    return counts;
}

Json::Value List(const std::vector<std::string>& texts)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

std::string AsJson(const Finding& found, const ExceptionRules& exceptions)
{
    const Readiness& readiness = found.readiness;
    Json::Value document;
    document["kernel"] = Kernel();
    document["starts"] = found.error.empty();
    document["warnings"] = List(readiness.warnings);
    if (!found.error.empty()) {
        document["error"] = found.error;
    } else {
        document["calls"] = Counts(readiness.coverage.calls, readiness.listedCalls);
        document["directories"] = Counts(readiness.coverage.directories, readiness.listedDirectories);
        document["detectors"] = List(readiness.coverage.detectors);
        document["engines"] = List(readiness.engines);
        document["containers"] = static_cast<Json::UInt64>(readiness.containers);
        document["exceptions"] = ToJson(exceptions);
        document["system_calls_at"] = readiness.callPlace;
    }
    return SDK::JsonUtils::JsonToString(document) + "\n";
}

}  // namespace

ExitCode Check(const Options& options)
{
    const Finding found = Try(options);
    const std::string text = options.asJson ? AsJson(found, options.exceptions) : InWords(found, options.exceptions);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        return failed;
    }
    if (!found.error.empty()) {
        return badInput;
    }
    return found.readiness.warnings.empty() ? cleanStop : failed;
}

}  // namespace Agent
