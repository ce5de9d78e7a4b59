// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmContext.h"

#include <json/value.h>

#include <ctime>

#include "host/sdk/TraceTime.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

std::chrono::nanoseconds Now(clockid_t clock)
{
    timespec time{};
    ::clock_gettime(clock, &time);
    return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

// 0 when the document names none.
int ThreadOf(const std::string& alarm)
{
    Json::Value document;
    const bool isObject =
        SDK::JsonUtils::ParseJsonStr(alarm.data(), alarm.size(), document) == 0 && document.isObject();
    const Json::Value& processes = isObject ? document["process_info"] : Json::Value::nullSingleton();
    const bool hasProcess = processes.isArray() && !processes.empty() && processes[0].isObject();
    const Json::Value& pid = hasProcess ? processes[0]["process_pid"] : Json::Value::nullSingleton();
    return pid.isInt() ? pid.asInt() : 0;
}

}  // namespace

std::shared_ptr<const AlarmContext> AlarmContext::Take(const std::string& alarm, SDK::SystemView& system)
{
    auto context = std::make_shared<AlarmContext>();
    if (const auto when = SDK::TraceTime::Current()) {
        context->time = *when + (Now(CLOCK_REALTIME) - Now(CLOCK_MONOTONIC));
    }
    context->tid = ThreadOf(alarm);
    if (context->tid <= 0) {
        return context;
    }
    context->process = system.Describe(context->tid);
    std::string container;
    system.ContainerOf(context->tid, container);
    for (int pid = context->process ? context->process->parent : 0;
         pid > 0 && !container.empty() && context->ancestors.size() < maxAncestors;) {
        std::string itsContainer;
        const auto ancestor = system.ContainerOf(pid, itsContainer) == 0 && itsContainer == container
                                  ? system.Describe(pid)
                                  : std::nullopt;
        if (!ancestor) {
            break;
        }
        context->ancestors.push_back(*ancestor);
        pid = ancestor->parent;
    }
    return context;
}

}  // namespace Engine
