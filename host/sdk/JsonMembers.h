// SPDX-License-Identifier: Apache-2.0
// Looks into JSON documents of others: an unexpected type counts as absent. Throws nothing but std::bad_alloc, unlike
// jsoncpp's own access.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "sdk/JsonUtils.h"

namespace SDK::JsonMembers {

// Nothing when the text is no document (JsonUtils::ParseJsonStr).
inline std::optional<Json::Value> Parse(const std::string& text)
{
    Json::Value root;
    return JsonUtils::ParseJsonStr(text.data(), text.size(), root) == 0 ? std::optional{std::move(root)} : std::nullopt;
}

// The member, null when `value` is no object or has none.
inline const Json::Value& Member(const Json::Value& value, const char* key)
{
    return value.isObject() ? value[key] : Json::Value::nullSingleton();
}

// The first element, null when `value` is no array or has none.
inline const Json::Value& First(const Json::Value& value)
{
    return value.isArray() && !value.empty() ? value[0] : Json::Value::nullSingleton();
}

// The member if it is a text, at most `maxBytes` of it; else empty.
inline std::string Text(const Json::Value& value, const char* key, std::size_t maxBytes = std::string::npos)
{
    const Json::Value& member = Member(value, key);
    return member.isString() ? member.asString().substr(0, maxBytes) : std::string{};
}

}  // namespace SDK::JsonMembers
