// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmFormat.h"

#include <string_view>

#include "host/sdk/JsonMembers.h"
#include "host/sdk/SafeText.h"

namespace Engine {

namespace {

using SDK::JsonMembers::First;
using SDK::JsonMembers::Member;
using SDK::JsonMembers::Text;

std::string Padded(const std::string& text, std::size_t width)
{
    return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}

// What the alarm is about: a call, a file, or the agent's own impairment.
std::string SubjectOf(const Json::Value& document)
{
    const Json::Value& files = Member(document, "file_info");
    const std::string path = Text(files.isArray() ? First(files) : files, "file_path");
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
    const Json::Value& process = First(Member(document, "process_info"));
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
    std::string line = time.isInt64() ? AlarmEnvelope::Timestamp(time.asInt64()) + "Z  " : std::string{};
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

std::string AlarmFormat::Format(const std::string& alarm, const Json::Value& document, const AlarmContext* context,
                                const SDK::ContainerNames* names, const std::string& policy,
                                const std::string& exception)
{
    switch (form) {
        case Form::Envelope:
            return envelope.Make(alarm, document, context, names, policy, exception);
        case Form::Text:
            return ForTerminal(document) + (!exception.empty() ? "  excepted by " + exception : "");
        case Form::Plain:
            break;
    }
    return alarm;
}

}  // namespace Engine
