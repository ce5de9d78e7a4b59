// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Status.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/StreamSocket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <istream>
#include <optional>

#include "host/agent/MetricsAddress.h"
#include "host/sdk/AlarmLatency.h"
#include "host/sdk/Counters.h"
#include "host/sdk/JsonMembers.h"
#include "sdk/JsonUtils.h"
#include "sdk/StrUtils.h"

namespace Agent {

namespace {

using SDK::JsonMembers::Member;

constexpr std::size_t maxBytes = 4U << 20U;  // of an answer
constexpr int patienceSeconds = 5;
constexpr int normal = 50;  // percent of the alarms
constexpr int slowest = 99;

template <class Values>
Json::Value ObjectOf(const Values& values)
{
    Json::Value object(Json::objectValue);
    for (const auto& [name, value] : values) {
        object[name] = static_cast<Json::UInt64>(value);
    }
    return object;
}

Json::Value ListOf(const std::vector<std::string>& texts)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

Json::Value Counts(std::size_t watched, std::size_t listed)
{
    Json::Value counts;
    counts["watched"] = static_cast<Json::UInt64>(watched);
    counts["listed"] = static_cast<Json::UInt64>(listed);
    return counts;
}

std::uint64_t ValueOf(const CounterValues& counters, const std::string& name)
{
    const auto found = counters.find(name);
    return found == counters.end() ? 0 : found->second;
}

// In milliseconds, the bound that so many percent of the alarms kept; null: there were none, or it is beyond the last.
Json::Value Quantile(const CounterValues& counters, std::uint64_t alarms, unsigned int percent)
{
    constexpr double microseconds = 1000;
    constexpr unsigned int all = 100;
    std::uint64_t within = 0;
    for (std::size_t i = 0; i < SDK::AlarmLatency::bounds.size() && alarms != 0; ++i) {
        within += ValueOf(counters, SDK::AlarmLatency::CounterOf(i));
        if (within * all >= alarms * percent) {
            return SDK::AlarmLatency::bounds.at(i) / microseconds;
        }
    }
    return {};
}

Json::Value LatencyOf(const CounterValues& counters)
{
    std::uint64_t alarms = 0;
    for (std::size_t i = 0; i <= SDK::AlarmLatency::bounds.size(); ++i) {
        alarms += ValueOf(counters, SDK::AlarmLatency::CounterOf(i));
    }
    Json::Value latency;
    latency["alarms"] = Json::UInt64{alarms};
    latency["p50_ms"] = Quantile(counters, alarms, normal);
    latency["p99_ms"] = Quantile(counters, alarms, slowest);
    return latency;
}

Json::Value UnixTime(AgentState::Seconds time)
{
    return static_cast<Json::Int64>(time.time_since_epoch().count());
}

// The answer's text. Throws std::exception.
std::string Ask(const Poco::Net::SocketAddress& address)
{
    const Poco::Timespan patience(patienceSeconds, 0);
    Poco::Net::StreamSocket socket;
    socket.connect(address, patience);
    Poco::Net::HTTPClientSession session(socket);
    session.setTimeout(patience);
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, statusPath, Poco::Net::HTTPRequest::HTTP_1_1);
    request.setHost("localhost");
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& body = session.receiveResponse(response);
    std::string text(maxBytes, '\0');
    body.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(body.gcount()));
    return response.getStatus() == Poco::Net::HTTPResponse::HTTP_OK ? text : std::string{};
}

std::string Elapsed(std::int64_t seconds)
{
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    constexpr std::int64_t day = 24 * hour;
    return seconds >= day    ? SDK::StrUtils::Format("%lld d %lld h", static_cast<long long>(seconds / day),
                                                     static_cast<long long>(seconds % day / hour))
           : seconds >= hour ? SDK::StrUtils::Format("%lld h %lld min", static_cast<long long>(seconds / hour),
                                                     static_cast<long long>(seconds % hour / minute))
                             : SDK::StrUtils::Format("%lld min %lld s", static_cast<long long>(seconds / minute),
                                                     static_cast<long long>(seconds % minute));
}

std::string Ago(const Json::Value& time)
{
    if (!time.isInt64()) {
        return "at an unknown time";
    }
    return Elapsed(std::max<std::int64_t>(std::int64_t{std::time(nullptr)} - time.asInt64(), 0)) + " ago";
}

std::string Scalar(const Json::Value& value)
{
    return value.isNull() || value.isArray() || value.isObject() ? "-" : value.asString();
}

// "a 1, b 2"; "none" when there are none. `prefix`: only the members whose names begin so, without it.
std::string Listed(const Json::Value& object, const std::string& prefix = {})
{
    std::string text;
    for (const std::string& name : object.isObject() ? object.getMemberNames() : Json::Value::Members{}) {
        const std::string value = Scalar(object[name]);
        if (name.starts_with(prefix) && value != "0") {
            text.append(text.empty() ? "" : ", ").append(name.substr(prefix.size())).append(" ").append(value);
        }
    }
    return text.empty() ? "none" : text;
}

std::string Losses(const Json::Value& counters)
{
    Json::Value losses(Json::objectValue);
    for (const std::string& name : counters.isObject() ? counters.getMemberNames() : Json::Value::Members{}) {
        if (name.find(".lost") != std::string::npos || name == SDK::CounterName::notifyOverflow ||
            name.find(".shed") != std::string::npos) {
            losses[name] = counters[name];
        }
    }
    return Listed(losses);
}

std::string Watching(const Json::Value& watching)
{
    const auto counts = [&watching](const char* what) {
        const Json::Value& found = Member(watching, what);
        return Scalar(Member(found, "watched")) + " of " + Scalar(Member(found, "listed")) + " listed " + what;
    };
    std::string text = counts("calls") + ", " + counts("directories");
    for (const Json::Value& detector : Member(watching, "detectors")) {
        text += ", " + Scalar(detector);
    }
    return text + "; system calls at " + Scalar(Member(watching, "system_calls_at"));
}

std::string HealthOf(const Json::Value& health)
{
    const Json::Value& ok = Member(health, "ok");
    if (ok.isBool() && ok.asBool()) {
        return Line("health: good");
    }
    std::string text = Line("health: NOT GOOD");
    for (const Json::Value& cause : Member(health, "causes")) {
        text += Line("  " + Scalar(cause));
    }
    return text;
}

}  // namespace

Json::Value StatusDocument(const AgentState& state, const CounterValues& counters)
{
    const Readiness& readiness = state.readiness;
    Json::Value document;
    document["version"] = CE_VERSION;
    document["pid"] = Json::Int64{::getpid()};
    document["started"] = UnixTime(state.started);
    document["policy"]["sha256"] = state.policySha256;
    document["policy"]["loaded"] = UnixTime(state.policyLoaded);
    Json::Value& watching = document["watching"];
    watching["calls"] = Counts(readiness.coverage.calls, readiness.listedCalls);
    watching["directories"] = Counts(readiness.coverage.directories, readiness.listedDirectories);
    watching["detectors"] = ListOf(readiness.coverage.detectors);
    watching["system_calls_at"] = readiness.callPlace;
    document["warnings"] = ListOf(readiness.warnings);
    document["engines"] = ListOf(readiness.engines);
    document["containers"] = static_cast<Json::UInt64>(readiness.containers);
    document["registry"]["threads"] = static_cast<Json::UInt64>(state.registry.threads);
    document["registry"]["containers"] = static_cast<Json::UInt64>(state.registry.containers);
    document["counters"] = ObjectOf(counters);
    document["queued"] = ObjectOf(state.queued);
    document["alarms_merged"] = ObjectOf(state.merged);
    document["shed_by_container"] = ObjectOf(state.shedBy);
    document["latency"] = LatencyOf(counters);
    document["health"]["ok"] = state.causes.empty();
    document["health"]["causes"] = ListOf(state.causes);
    return document;
}

std::string StatusInWords(const Json::Value& document)
{
    const Json::Value& counters = Member(document, "counters");
    const Json::Value& policy = Member(document, "policy");
    const Json::Value& latency = Member(document, "latency");
    const auto count = [&counters](const char* name) {
        const Json::Value& value = Member(counters, name);
        return value.isUInt64() ? value.asString() : std::string{"0"};
    };
    std::string engines;
    for (const Json::Value& engine : Member(document, "engines")) {
        engines.append(engines.empty() ? "; engine " : ", engine ").append(Scalar(engine));
    }
    std::string text = Line("containerescape-agent " + Scalar(Member(document, "version")) + ", process " +
                            Scalar(Member(document, "pid")) + ", started " + Ago(Member(document, "started")));
    text += Line("policy: " + Scalar(Member(policy, "sha256")) + ", in force since " + Ago(Member(policy, "loaded")));
    text += Line("watching: " + Watching(Member(document, "watching")));
    for (const Json::Value& warning : Member(document, "warnings")) {
        text += Line("  " + Scalar(warning));
    }
    text += Line("containers: " + Scalar(Member(document, "containers")) + (engines.empty() ? "; no engine" : engines));
    text += Line("events: trace " + count(SDK::CounterName::traceRead) + ", of these system calls " +
                 count(SDK::CounterName::callsRead) + "; file " + count(SDK::CounterName::notifyRead));
    text += Line("lost or excluded: " + Losses(counters));
    text += Line("alarms written: " + Listed(counters, SDK::CounterName::alarmsOfClass));
    text += Line("alarms merged: " + Listed(Member(document, "alarms_merged")));
    text +=
        Line("from call to line: p50 " + Scalar(Member(latency, "p50_ms")) + " ms, p99 " +
             Scalar(Member(latency, "p99_ms")) + " ms at most, of " + Scalar(Member(latency, "alarms")) + " alarms");
    return text + HealthOf(Member(document, "health"));
}

ExitCode Status(const Options& options)
{
    if (options.metricsAddress.empty()) {
        throw BadInput(
            "status: the agent tells nothing where --metrics is not configured; set it for the agent, best "
            "as \"metrics\": \"unix:/run/containerescape-agent/metrics.sock\" in " +
            std::string{DefaultConfiguration()});
    }
    std::string problem;
    std::optional<Json::Value> document;
    try {
        document = SDK::JsonMembers::Parse(Ask(ParseMetricsAddress(options.metricsAddress)));
        problem = "what answers is no agent";
    } catch (const Poco::Exception& refusal) {
        problem = refusal.displayText();
    }
    if (!document || !Member(*document, "health").isObject()) {
        throw BadInput("no agent at " + options.metricsAddress + ": " + problem);
    }
    const std::string text = options.asJson ? SDK::JsonUtils::JsonToString(*document) + "\n" : StatusInWords(*document);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        return failed;
    }
    const Json::Value& ok = Member(Member(*document, "health"), "ok");
    return ok.isBool() && ok.asBool() ? cleanStop : failed;
}

}  // namespace Agent
