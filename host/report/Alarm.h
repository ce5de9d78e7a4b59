// SPDX-License-Identifier: Apache-2.0
// An alarm's document, parsed once for all that look into it on its way out.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <utility>

#include "host/sdk/JsonMembers.h"

namespace Engine {

struct Alarm {
    std::string text;
    Json::Value document;  // the same

    // Nothing when it is not a JSON object. Any thread.
    static std::optional<Alarm> Parse(std::string text)
    {
        auto document = SDK::JsonMembers::Parse(text);
        if (!document || !document->isObject()) {
            return std::nullopt;
        }
        return Alarm{std::move(text), std::move(*document)};
    }
};

}  // namespace Engine
