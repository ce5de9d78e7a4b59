// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmDocument.h"

#include <algorithm>

#include "host/sdk/AlarmLatency.h"
#include "host/sdk/Counters.h"
#include "host/sdk/JsonMembers.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

bool IsPlain(char c)
{
    return c >= ' ' && c <= '~';
}

}  // namespace

std::shared_ptr<AlarmDocument> AlarmDocument::Make(const Alarm& alarm, std::size_t sinks, const Form& form)
{
    const std::string& text = alarm.text;
    const Json::Value& root = alarm.document;
    // Only what would break a line is written anew: otherwise the text goes out byte for byte.
    const bool isPlain = std::all_of(text.begin(), text.end(), IsPlain);
    std::string line = isPlain ? text : SDK::JsonUtils::JsonToString(root);
    line.erase(line.find_last_not_of('\n') + 1);
    line = form ? form(line, root) : line;
    line += '\n';
    constexpr std::size_t maxClassBytes = 64;
    return std::make_shared<AlarmDocument>(std::move(line), sinks,
                                           SDK::JsonMembers::Text(root, "event_classid", maxClassBytes));
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
        CountSent();
    }
}

void AlarmDocument::CountSent() const
{
    if (!classId.empty()) {
        ++SDK::Counters::Get(SDK::CounterName::alarmsOfClass + classId);
    }
    if (event) {
        SDK::AlarmLatency::Count(std::chrono::steady_clock::now().time_since_epoch() - *event);
    }
}

void AlarmDocument::CountLost()
{
    static SDK::Counters::Counter& lost = SDK::Counters::Get(SDK::CounterName::alarmsLost);
    ++lost;
}

}  // namespace Engine
