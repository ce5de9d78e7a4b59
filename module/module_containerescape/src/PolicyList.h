// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/value.h>

#include <string>
#include <unordered_set>
#include <utility>

namespace Engine {

// The texts of a policy's list that `accept` lets in. An element that has no text (an object, a list) is skipped like
// any other bad entry: a policy file must not end its reader with an exception.
template <class Accept>
std::unordered_set<std::string> TextsOf(const Json::Value& list, Accept accept)
{
    std::unordered_set<std::string> texts;
    for (const Json::Value& element : list) {
        if (!element.isConvertibleTo(Json::stringValue)) {
            continue;
        }
        std::string text = element.asString();
        if (accept(text)) {
            texts.insert(std::move(text));
        }
    }
    return texts;
}

inline std::unordered_set<std::string> TextsOf(const Json::Value& list)
{
    return TextsOf(list, [](const std::string&) { return true; });
}

}  // namespace Engine
