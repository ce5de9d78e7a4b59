// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmFormat.h"

#include <json/value.h>
#include <sys/utsname.h>

#include <array>
#include <ctime>
#include <string_view>

#include "host/sdk/Counters.h"
#include "host/sdk/SafeText.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

constexpr int version = 1;
constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

std::string BootId()
{
    constexpr long digits = 36;
    std::string id;
    SDK::FileUtils::ReadFile("/proc/sys/kernel/random/boot_id", id, digits);
    return id;
}

// RFC 3339. `seconds` of the epoch.
std::string Timestamp(std::int64_t seconds)
{
    const std::time_t time{seconds};
    tm parts{};
    std::array<char, 32> text{};
    ::gmtime_r(&time, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    return text.data();
}

Json::Value TimeOf(const AlarmContext* context)
{
    if (context == nullptr || !context->time) {
        return {};
    }
    const std::int64_t time = context->time->count();
    std::string fraction = std::to_string(nanosecondsPerSecond + time % nanosecondsPerSecond);
    fraction.front() = '.';
    return Timestamp(time / nanosecondsPerSecond) + fraction + "Z";
}

// What is empty could not be had.
Json::Value TextOrNull(const std::string& text)
{
    return text.empty() ? Json::Value{} : Json::Value{text};
}

template <class T>
Json::Value NumberOrNull(const std::optional<T>& number)
{
    return number ? Json::Value{*number} : Json::Value{};
}

template <class Texts>
Json::Value List(const Texts& texts)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

Json::Value Arguments(const SDK::ProcessDetails& process)
{
    return process.arguments.empty() ? Json::Value{} : List(process.arguments);
}

Json::Value ProcessOf(const AlarmContext* context)
{
    Json::Value described;
    if (context == nullptr || context->tid <= 0) {
        return described;
    }
    const SDK::ProcessDetails process = context->process.value_or(SDK::ProcessDetails{});
    described["tid"] = context->tid;
    described["pid"] = context->process ? Json::Value{process.process} : Json::Value{};
    described["exe"] = TextOrNull(process.executable);
    described["argv"] = Arguments(process);
    described["cwd"] = TextOrNull(process.workingDirectory);
    described["uid"] = NumberOrNull(process.uid);
    described["gid"] = NumberOrNull(process.gid);
    described["loginuid"] = NumberOrNull(process.loginUid);
    described["capabilities"] = TextOrNull(process.capabilities);
    described["ancestors"] = context->process ? Json::Value(Json::arrayValue) : Json::Value{};
    for (const SDK::ProcessDetails& ancestor : context->ancestors) {
        Json::Value each;
        each["pid"] = ancestor.process;
        each["exe"] = TextOrNull(ancestor.executable);
        each["argv"] = Arguments(ancestor);
        described["ancestors"].append(each);
    }
    return described;
}

Json::Value ContainerOf(const std::string& id, const SDK::ContainerNames* names)
{
    Json::Value described;
    if (id.empty()) {
        return described;
    }
    const auto known = names == nullptr ? nullptr : names->Find(id);
    const ContainerInfo info = known == nullptr ? ContainerInfo{} : *known;
    described["id"] = id;
    described["name"] = TextOrNull(info.name);
    described["image"] = TextOrNull(info.imageName);
    described["digest"] = TextOrNull(info.imageId);
    described["pod"] = TextOrNull(info.pod.name);
    described["namespace"] = TextOrNull(info.pod.nameSpace);
    described["pod_uid"] = TextOrNull(info.pod.uid);
    described["mounts"] = known == nullptr ? Json::Value{} : List(info.mountDestinations);
    return described;
}

const Json::Value& Member(const Json::Value& value, const char* key)
{
    return value.isObject() ? value[key] : Json::Value::nullSingleton();
}

std::string Text(const Json::Value& value, const char* key)
{
    const Json::Value& member = Member(value, key);
    return member.isString() ? member.asString() : std::string{};
}

bool IsLoss(const std::string& counter)
{
    return counter.find(".lost") != std::string::npos || counter.find(".shed") != std::string::npos ||
           counter == SDK::CounterName::notifyOverflow;
}

std::string Padded(const std::string& text, std::size_t width)
{
    return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}

// What the alarm is about: a call, a file, or the agent's own impairment.
std::string SubjectOf(const Json::Value& document)
{
    const Json::Value& files = Member(document, "file_info");
    const std::string path = files.isArray() && !files.empty() ? Text(files[0], "file_path") : Text(files, "file_path");
    const std::string call = Text(Member(document, "forensic_info"), "sys_call");
    return path.empty() ? call : call.empty() ? path : call + " " + path;
}

std::string ForTerminal(const Json::Value& document)
{
    constexpr std::size_t nameWidth = 28;
    constexpr std::size_t containerWidth = 24;
    constexpr std::size_t idDigits = 12;
    constexpr const char* bold = "\033[1;31m";
    constexpr const char* normal = "\033[0m";
    const Json::Value& time = Member(document, "occur_time");
    const Json::Value& processes = Member(document, "process_info");
    const Json::Value& process =
        processes.isArray() && !processes.empty() ? processes[0] : Json::Value::nullSingleton();
    const Json::Value& pid = Member(process, "process_pid");
    std::string container = Text(document, "container_name");
    if (container.empty()) {
        container = Text(Member(document, "resource_info"), "container_id").substr(0, idDigits);
    }
    if (const std::string image = Text(document, "image_name"); !image.empty()) {
        container.append(" (").append(image).append(")");
    }
    std::string rest =
        Padded(container, containerWidth) + "  " + SubjectOf(document) + "  " + Text(process, "process_name");
    if (pid.isInt()) {
        rest.append("[").append(pid.asString()).append("]");
    }
    std::string line = time.isInt64() ? Timestamp(time.asInt64()) + "Z  " : std::string{};
    line += bold;
    SDK::SafeText::AppendEscaped(line, Padded(Text(document, "event_name"), nameWidth));
    line += normal;
    SDK::SafeText::AppendEscaped(line, "  " + rest);
    return line;
}

}  // namespace

AlarmFormat::Form AlarmFormat::Parse(const std::string& form, bool isTerminal)
{
    if (form == "envelope") {
        return Form::Envelope;
    }
    return form == "text" || (form == "auto" && isTerminal) ? Form::Text : Form::Plain;
}

std::string AlarmFormat::Format(const std::string& alarm, const AlarmContext* context, const SDK::ContainerNames* names,
                                const std::string& policy)
{
    if (form == Form::Envelope) {
        return Enveloped(alarm, context, names, policy);
    }
    Json::Value document;
    if (form == Form::Plain || SDK::JsonUtils::ParseJsonStr(alarm.data(), alarm.size(), document) != 0) {
        return alarm;
    }
    return ForTerminal(document);
}

// The document goes in as it is.
std::string AlarmFormat::Enveloped(const std::string& alarm, const AlarmContext* context,
                                   const SDK::ContainerNames* names, const std::string& policy)
{
    static const std::string bootId = BootId();
    Json::Value document;
    SDK::JsonUtils::ParseJsonStr(alarm.data(), alarm.size(), document);
    utsname host{};
    ::uname(&host);
    Json::Value envelope;
    envelope["v"] = version;
    envelope["time"] = TimeOf(context);
    envelope["host"]["node"] = host.nodename;
    envelope["host"]["boot_id"] = TextOrNull(bootId);
    envelope["agent"]["version"] = CE_VERSION;
    envelope["agent"]["policy_sha256"] = TextOrNull(policy);
    envelope["process"] = ProcessOf(context);
    envelope["container"] = ContainerOf(Text(Member(document, "resource_info"), "container_id"), names);
    envelope["event"]["call"] = TextOrNull(Text(Member(document, "forensic_info"), "sys_call"));
    envelope["event"]["args"] = Json::Value{};
    envelope["losses"] = Json::Value(Json::objectValue);
    for (const auto& [name, count] : SDK::Counters::Snapshot()) {
        std::uint64_t& before = lossesBefore[name];
        if (IsLoss(name) && count != before) {
            envelope["losses"][name] = Json::UInt64{count - before};
        }
        before = count;
    }
    std::string text = SDK::JsonUtils::JsonToString(envelope);
    text.resize(text.rfind('}'));
    return text + ",\"alarm\":" + alarm + "}";
}

}  // namespace Engine
