// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineDocuments.h"

#include <json/value.h>

#include <algorithm>

#include "sdk/JsonUtils.h"

namespace Engine::EngineDocuments {

namespace {

constexpr std::size_t maxIdBytes = 128;

bool IsAlphanumeric(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::optional<Json::Value> Parse(const std::string& text)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) {
        return std::nullopt;
    }
    return root;
}

// The member, null when `value` is no object or has none. Never throws, unlike jsoncpp's own access.
const Json::Value& Member(const Json::Value& value, const char* key)
{
    return value.isObject() ? value[key] : Json::Value::nullSingleton();
}

std::string Text(const Json::Value& value, const char* key)
{
    const Json::Value& member = Member(value, key);
    return member.isString() ? member.asString().substr(0, maxTextBytes) : std::string{};
}

std::string ContainerName(const Json::Value& value, const char* key)
{
    std::string name = Text(value, key);
    name.erase(0, name.starts_with('/') ? 1 : 0);
    return name;
}

int PidOf(const Json::Value& root)
{
    const Json::Value& pid = Member(Member(root, "State"), "Pid");
    return pid.isInt() ? std::max(0, pid.asInt()) : 0;
}

std::vector<std::string> MountDestinations(const Json::Value& root)
{
    std::vector<std::string> destinations;
    const Json::Value& mounts = Member(root, "Mounts");
    if (!mounts.isArray()) {
        return destinations;
    }
    for (const Json::Value& mount : mounts) {
        std::string destination = Text(mount, "Destination");
        if (!destination.empty() && destinations.size() < maxMounts) {
            destinations.push_back(std::move(destination));
        }
    }
    return destinations;
}

}  // namespace

bool IsContainerId(std::string_view text)
{
    return !text.empty() && text.size() <= maxIdBytes && IsAlphanumeric(text.front()) &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return IsAlphanumeric(c) || c == '_' || c == '.' || c == '-'; });
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
    inspected.info.mountDestinations = MountDestinations(*root);
    inspected.pid = PidOf(*root);
    return inspected;
}

bool IsImageName(std::string_view text)
{
    static constexpr std::string_view others = "_.-/:@";
    return !text.empty() && text.size() <= maxTextBytes && text.find("..") == std::string_view::npos &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return IsAlphanumeric(c) || others.find(c) != std::string_view::npos; });
}

std::string ParseImageId(const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    return root ? Text(*root, "Id") : std::string{};
}

std::optional<std::vector<std::string>> ParseList(const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    if (!root || !root->isArray()) {
        return std::nullopt;
    }
    std::vector<std::string> ids;
    for (const Json::Value& container : *root) {
        std::string id = Text(container, "Id");
        if (IsContainerId(id) && ids.size() < maxListed) {
            ids.push_back(std::move(id));
        }
    }
    return ids;
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
