// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineDocuments.h"

#include <algorithm>

#include "sdk/JsonUtils.h"

namespace Engine::EngineDocuments {

namespace {

constexpr std::size_t maxIdBytes = 128;
constexpr char alphanumerics[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

// Whether every character is a letter, a digit or one of the others.
bool IsPlain(std::string_view text, std::string_view others)
{
    return text.find_first_not_of(std::string{alphanumerics}.append(others)) == std::string_view::npos;
}

std::optional<Json::Value> Parse(const std::string& text)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) {
        return std::nullopt;
    }
    return root;
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

const Json::Value& Member(const Json::Value& value, const char* key)
{
    return value.isObject() ? value[key] : Json::Value::nullSingleton();
}

std::string Text(const Json::Value& value, const char* key)
{
    const Json::Value& member = Member(value, key);
    return member.isString() ? member.asString().substr(0, maxTextBytes) : std::string{};
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
    const Json::Value& pid = Member(Member(*root, "State"), "Pid");
    inspected.pid = pid.isInt() ? std::max(0, pid.asInt()) : 0;
    return inspected;
}

std::string ParseImageId(const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    return root ? Text(*root, "Id") : std::string{};
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
