// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmDocument.h"

#include <json/value.h>

#include <algorithm>

#include "host/sdk/Counters.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

bool IsPlain(char c)
{
    return c >= ' ' && c <= '~';
}

}  // namespace

std::shared_ptr<AlarmDocument> AlarmDocument::Make(const std::string& text, std::size_t sinks, const Form& form)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root) != 0 || !root.isObject()) {
        CountLost();
        return nullptr;
    }
    // Only what would break a line is written anew: otherwise the text goes out byte for byte.
    const bool isPlain = std::all_of(text.begin(), text.end(), IsPlain);
    std::string line = isPlain ? text : SDK::JsonUtils::JsonToString(root);
    line.erase(line.find_last_not_of('\n') + 1);
    line = form ? form(line) : line;
    line += '\n';
    return std::make_shared<AlarmDocument>(std::move(line), sinks);
}

void AlarmDocument::Finish(bool written)
{
    static SDK::Counters::Counter& sent = SDK::Counters::Get(SDK::CounterName::alarmsSent);
    if (!written) {
        isLost = true;
    }
    if (--pending != 0) {
        return;
    }
    if (isLost) {
        CountLost();
    } else {
        ++sent;
    }
}

void AlarmDocument::CountLost()
{
    static SDK::Counters::Counter& lost = SDK::Counters::Get(SDK::CounterName::alarmsLost);
    ++lost;
}

}  // namespace Engine
