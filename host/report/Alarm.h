// SPDX-License-Identifier: Apache-2.0
// An alarm on its way out: its document, parsed once for all that look into it, and what is known beside it.
#pragma once

#include <json/value.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/sdk/JsonMembers.h"

namespace Engine {

struct AlarmContext;

struct Alarm {
    std::string text;
    Json::Value document;  // the same
    std::shared_ptr<const AlarmContext> context{};
    std::string exception{};  // that holds for it; empty: none does

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
