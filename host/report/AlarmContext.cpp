// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmContext.h"

#include <ctime>
#include <string_view>

#include "host/sdk/JsonMembers.h"
#include "host/sdk/TraceTime.h"

namespace Engine {

namespace {

using SDK::JsonMembers::Member;

std::chrono::nanoseconds Now(clockid_t clock)
{
    timespec time{};
    ::clock_gettime(clock, &time);
    return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

// 0 when the document names none.
int ThreadOf(const Json::Value& document)
{
    const Json::Value& pid = Member(SDK::JsonMembers::First(Member(document, "process_info")), "process_pid");
    return pid.isInt() ? pid.asInt() : 0;
}

}  // namespace

std::shared_ptr<const AlarmContext> AlarmContext::OfEvent()
{
    auto context = std::make_shared<AlarmContext>();
    context->event = SDK::TraceTime::Current();
    return context;
}

std::shared_ptr<const AlarmContext> AlarmContext::Take(const Alarm& alarm, SDK::SystemView& system)
{
    auto context = std::make_shared<AlarmContext>();
    context->event = SDK::TraceTime::Current();
    context->clockOffset = Now(CLOCK_REALTIME) - Now(CLOCK_MONOTONIC);
    constexpr std::string_view callEvent = "syscalls:sys_enter_";
    if (const auto* event = SDK::TraceTime::Event(); event != nullptr && event->Name().starts_with(callEvent)) {
        context->call = event->Name().substr(callEvent.size());
        context->arguments = event->Numbers();
    }
    context->tid = ThreadOf(alarm.document);
    if (context->tid <= 0) {
        return context;
    }
    context->process = system.Describe(context->tid);
    std::string& container = context->container;
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
        context->ancestors.back().process = pid;
        pid = ancestor->parent;
    }
    return context;
}

}  // namespace Engine
