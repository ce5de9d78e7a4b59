// SPDX-License-Identifier: Apache-2.0
#include "host/report/NameWait.h"

#include <json/value.h>

#include <utility>

#include "host/report/ReportLog.h"
#include "host/sdk/Counters.h"
#include "host/sdk/JsonMembers.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

using SDK::JsonMembers::Member;
using SDK::JsonMembers::Text;

// The container of an alarm; empty for every other text.
std::string ContainerOf(const std::string& text, Json::Value& alarm)
{
    const bool isObject = SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), alarm) == 0 && alarm.isObject();
    const Json::Value& id = isObject ? Member(Member(alarm, "resource_info"), "container_id") : alarm;
    return id.isString() ? id.asString() : std::string{};
}

// With what the alarm does not tell of its container.
std::string Named(const std::string& text, Json::Value& alarm, const ContainerInfo* container)
{
    if (container == nullptr) {
        return text;
    }
    bool isMore = false;
    const auto complete = [&isMore](Json::Value& object, const char* key, const std::string& value) {
        if (!object.isMember(key) || (Text(object, key).empty() && !value.empty())) {
            object[key] = value;
            isMore = true;
        }
    };
    complete(alarm, "container_name", container->name);
    complete(alarm, "image_name", container->imageName);
    complete(alarm["resource_info"], "image_id", container->imageId);
    return isMore ? SDK::JsonUtils::JsonToString(alarm) : text;
}

}  // namespace

std::optional<std::string> NameWait::Pass(const std::string& text, const SDK::ContainerNames* names,
                                          Clock::time_point now, const Context& context)
{
    static SDK::Counters::Counter& deferred = SDK::Counters::Get(SDK::CounterName::alarmsDeferred);
    if (names == nullptr) {
        return text;
    }
    Json::Value alarm;
    const std::string id = ContainerOf(text, alarm);
    if (id.empty()) {
        return text;
    }
    if (!names->IsAwaited(id) || waiting.size() >= capacity) {
        return Named(text, alarm, names->Find(id).get());
    }
    ++deferred;
    ReportLog::Warning("alarm waits for the name of its container: %s", text);
    waiting.push_back({text, context, id, now + patience});
    return std::nullopt;
}

void NameWait::Release(const SDK::ContainerNames* names, Clock::time_point now, const Send& send)
{
    std::deque<Waiting> left;
    for (Waiting& each : std::exchange(waiting, {})) {
        if (names != nullptr && names->IsAwaited(each.container) && each.until > now) {
            left.push_back(std::move(each));
            continue;
        }
        Json::Value alarm;
        ContainerOf(each.text, alarm);
        const auto found = names == nullptr ? nullptr : names->Find(each.container);
        send(Named(each.text, alarm, found.get()), each.context);
    }
    waiting = std::move(left);
}

}  // namespace Engine
