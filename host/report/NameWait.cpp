// SPDX-License-Identifier: Apache-2.0
#include "host/report/NameWait.h"

#include <utility>

#include "host/report/ReportLog.h"
#include "host/sdk/Counters.h"
#include "host/sdk/JsonMembers.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

using SDK::JsonMembers::Member;
using SDK::JsonMembers::Text;

// Adds what the alarm does not tell of its container. Null: nothing is known of that.
void Complete(Alarm& alarm, const ContainerInfo* container)
{
    if (container == nullptr) {
        return;
    }
    bool isMore = false;
    const auto complete = [&isMore](Json::Value& object, const char* key, const std::string& value) {
        if (!object.isMember(key) || (Text(object, key).empty() && !value.empty())) {
            object[key] = value;
            isMore = true;
        }
    };
    complete(alarm.document, "container_name", container->name);
    complete(alarm.document, "image_name", container->imageName);
    complete(alarm.document["resource_info"], "image_id", container->imageId);
    if (isMore) {
        alarm.text = SDK::JsonUtils::JsonToString(alarm.document);
    }
}

}  // namespace

bool NameWait::Pass(Alarm& alarm, const SDK::ContainerNames* names, Clock::time_point now)
{
    static SDK::Counters::Counter& deferred = SDK::Counters::Get(SDK::CounterName::alarmsDeferred);
    if (names == nullptr) {
        return true;
    }
    const std::string id = Text(Member(alarm.document, "resource_info"), "container_id");
    if (id.empty()) {
        return true;
    }
    if (!names->IsAwaited(id) || waiting.size() >= capacity) {
        Complete(alarm, names->Find(id).get());
        return true;
    }
    ++deferred;
    ReportLog::Warning("alarm waits for the name of its container: %s", alarm.text);
    waiting.push_back({std::move(alarm), id, now + patience});
    return false;
}

void NameWait::Release(const SDK::ContainerNames* names, Clock::time_point now, const Send& send)
{
    std::deque<Waiting> left;
    for (Waiting& each : std::exchange(waiting, {})) {
        if (names != nullptr && names->IsAwaited(each.container) && each.until > now) {
            left.push_back(std::move(each));
            continue;
        }
        Complete(each.alarm, names == nullptr ? nullptr : names->Find(each.container).get());
        send(each.alarm);
    }
    waiting = std::move(left);
}

}  // namespace Engine
