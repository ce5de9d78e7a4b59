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

std::shared_ptr<AlarmDocument> AlarmDocument::Make(const std::string& text, std::size_t sinks)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root) != 0 || !root.isObject()) {
        CountLost();
        return nullptr;
    }
    // Only what would break a line is written anew: otherwise the sender's text goes out byte for byte.
    const bool isPlain = std::all_of(text.begin(), text.end(), IsPlain);
    std::string line = isPlain ? text : SDK::JsonUtils::JsonToString(root);
    // Whoever writes JSON ends its text as he likes; the line has its one newline from here.
    line.erase(std::find_if(line.rbegin(), line.rend(), [](char c) { return c != '\n'; }).base(), line.end());
    line += '\n';
    return std::make_shared<AlarmDocument>(std::move(line), sinks);
}

AlarmDocument::~AlarmDocument()
{
    static SDK::Counters::Counter& sent = SDK::Counters::Get(SDK::CounterName::alarmsSent);
    if (written.load() == sinks && sinks != 0) {
        sent.fetch_add(1);
    } else {
        CountLost();
    }
}

void AlarmDocument::CountLost()
{
    static SDK::Counters::Counter& lost = SDK::Counters::Get(SDK::CounterName::alarmsLost);
    lost.fetch_add(1);
}

}  // namespace Engine
