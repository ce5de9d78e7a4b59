// SPDX-License-Identifier: Apache-2.0
#include "host/report/NameWait.h"

#include <json/value.h>

#include <utility>

#include "host/report/ReportLog.h"
#include "host/sdk/Counters.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

// The container of an alarm that does not name it; empty for every other text.
std::string NamelessContainer(const std::string& text, Json::Value& alarm)
{
    const bool isObject = SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), alarm) == 0 && alarm.isObject();
    if (!isObject || alarm.isMember("container_name") || !alarm["resource_info"].isObject()) {
        return {};
    }
    const Json::Value& id = alarm["resource_info"]["container_id"];
    return id.isString() ? id.asString() : std::string{};
}

std::string Named(const std::string& text, Json::Value& alarm, const ContainerInfo* container)
{
    if (container == nullptr) {
        return text;
    }
    alarm["container_name"] = container->name;
    alarm["image_name"] = container->imageName;
    alarm["resource_info"]["image_id"] = container->imageId;
    return SDK::JsonUtils::JsonToString(alarm);
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
    const std::string id = NamelessContainer(text, alarm);
    if (id.empty()) {
        return text;
    }
    const auto found = names->Find(id);
    if (found != nullptr || !names->IsAwaited(id) || waiting.size() >= capacity) {
        return Named(text, alarm, found.get());
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
        NamelessContainer(each.text, alarm);
        const auto found = names == nullptr ? nullptr : names->Find(each.container);
        send(Named(each.text, alarm, found.get()), each.context);
    }
    waiting = std::move(left);
}

}  // namespace Engine
