// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineDocuments.h"

#include <algorithm>

#include "host/sdk/JsonMembers.h"

namespace Engine::EngineDocuments {

namespace {

using SDK::JsonMembers::Member;
using SDK::JsonMembers::Parse;

constexpr std::size_t maxIdBytes = 128;
constexpr char alphanumerics[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

// Whether every character is a letter, a digit or one of the others.
bool IsPlain(std::string_view text, std::string_view others)
{
    return text.find_first_not_of(std::string{alphanumerics}.append(others)) == std::string_view::npos;
}

std::string ContainerName(const Json::Value& value, const char* key)
{
    std::string name = Text(value, key);
    name.erase(0, name.starts_with('/') ? 1 : 0);
    return name;
}

// Where the mounts end. None when it is no array.
std::vector<std::string> Destinations(const Json::Value& mounts)
{
    std::vector<std::string> destinations;
    for (Json::ArrayIndex i = 0; mounts.isArray() && i < mounts.size() && destinations.size() < maxMounts; ++i) {
        if (std::string text = Text(mounts[i], "Destination"); !text.empty()) {
            destinations.push_back(std::move(text));
        }
    }
    return destinations;
}

}  // namespace

std::string Text(const Json::Value& value, const char* key)
{
    return SDK::JsonMembers::Text(value, key, maxTextBytes);
}

bool IsContainerId(std::string_view text)
{
    return !text.empty() && text.size() <= maxIdBytes && IsPlain(text.substr(0, 1), "") && IsPlain(text, "_.-");
}

bool IsImageName(std::string_view text)
{
    return !text.empty() && text.size() <= maxTextBytes && text.find("..") == std::string_view::npos &&
           IsPlain(text, "_.-/:@");
}

void AddLabel(std::string key, std::string value, std::map<std::string, std::string>& labels)
{
    std::size_t bytes = key.size() + value.size();
    for (const auto& label : labels) {
        bytes += label.first.size() + label.second.size();
    }
    if (bytes <= maxLabelBytes && labels.size() < maxLabels) {
        labels.insert_or_assign(std::move(key), std::move(value));
    }
}

std::optional<Inspected> ParseInspected(const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    if (!root) {
        return std::nullopt;
    }
    Inspected inspected;
    inspected.info.id = Text(*root, "Id");
    if (!IsContainerId(inspected.info.id)) {
        return std::nullopt;
    }
    inspected.info.name = ContainerName(*root, "Name");
    inspected.info.imageId = Text(*root, "Image");
    inspected.info.imageName = Text(Member(*root, "Config"), "Image");
    inspected.info.mountDestinations = Destinations(Member(*root, "Mounts"));
    const Json::Value& labels = Member(Member(*root, "Config"), "Labels");
    for (const std::string& key : labels.isObject() ? labels.getMemberNames() : Json::Value::Members{}) {
        AddLabel(key, SDK::JsonMembers::Text(labels, key.c_str()), inspected.info.labels);
    }
    const Json::Value& privileged = Member(Member(*root, "HostConfig"), "Privileged");
    inspected.info.privileged = privileged.isBool() ? std::optional{privileged.asBool()} : std::nullopt;
    const Json::Value& pid = Member(Member(*root, "State"), "Pid");
    inspected.pid = pid.isInt() ? std::max(0, pid.asInt()) : 0;
    return inspected;
}

ContainerInfo ParseImage(const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    ContainerInfo info;
    if (root) {
        const Json::Value& reference = SDK::JsonMembers::First(Member(*root, "RepoDigests"));
        info.imageId = Text(*root, "Id");
        info.imageDigest = reference.isString() ? DigestIn(reference.asString()) : std::string{};
    }
    return info;
}

std::string DigestIn(std::string_view reference)
{
    const std::size_t at = reference.find('@');
    return std::string{at == std::string_view::npos ? "" : reference.substr(at + 1, maxTextBytes)};
}

bool ListReader::Take(std::string_view part)
{
    return std::all_of(part.begin(), part.end(), [this](char c) { return TakeOne(c); });
}

bool ListReader::TakeOne(char c)
{
    const bool isSpace = c == ' ' || c == '\n' || c == '\r' || c == '\t';
    if (state != State::Within) {
        state = state == State::Before && c == '[' ? State::Within : state;
        return isSpace || c == '[';
    }
    if (!inText && depth == 0 && (c == ',' || c == ']')) {
        EndElement();
        state = c == ']' ? State::After : state;
        return ids.size() < maxListed;
    }
    const std::size_t before = depth;
    if (inText) {
        inText = c != '"' || isEscaped;
        isEscaped = c == '\\' && !isEscaped;
    } else if (c == '"') {
        inText = true;
    } else if (c == '[' || c == '{') {
        ++depth;
    } else if (c == ']' || c == '}') {
        depth -= depth > 0 ? 1 : 0;
    }
    // Of what is nested in a container (labels, mounts) only the brackets.
    if (std::min(before, depth) <= 1 && element.size() <= maxElementBytes) {
        element += c;
    }
    return true;
}

void ListReader::EndElement()
{
    if (element.size() > maxElementBytes) {
        hasSkipped = true;
    } else if (const auto root = Parse(element)) {
        if (std::string id = Text(*root, "Id"); IsContainerId(id)) {
            ids.push_back(std::move(id));
        }
    }
    element.clear();
    hasSkipped |= ids.size() >= maxListed;
}

std::optional<Event> ParseEvent(const std::string& line)
{
    const std::optional<Json::Value> root = Parse(line);
    if (!root || Text(*root, "Type") != "container") {
        return std::nullopt;
    }
    const Json::Value& actor = Member(*root, "Actor");
    const Json::Value& attributes = Member(actor, "Attributes");
    Event event;
    event.action = Text(*root, "Action");
    event.info.id = Text(actor, "ID");
    event.info.name = ContainerName(attributes, "name");
    event.info.imageName = Text(attributes, "image");
    if (event.action.empty() || !IsContainerId(event.info.id)) {
        return std::nullopt;
    }
    return event;
}

}  // namespace Engine::EngineDocuments
