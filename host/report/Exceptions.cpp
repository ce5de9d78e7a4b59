// SPDX-License-Identifier: Apache-2.0
#include "host/report/Exceptions.h"

#include <algorithm>
#include <utility>

#include "host/sdk/Counters.h"
#include "host/sdk/JsonMembers.h"
#include "messages/ContainerMessages.h"

namespace Engine {

namespace {

using SDK::JsonMembers::Member;
using SDK::JsonMembers::Text;

SDK::Counters::Counter& CounterOf(const std::string& exception)
{
    return SDK::Counters::Get(SDK::CounterName::exceptedPrefix + exception);
}

// Empty where that cannot be relied on: of a process that has ended, whose last exec may not have been recorded, and of
// one that has had the kernel name another file (prctl(2), PR_SET_MM_EXE_FILE).
std::string ExecutableOf(const AlarmContext& context)
{
    const bool isSure = context.process && context.process->linkedExecutable == context.process->executable;
    return isSure ? context.process->executable : std::string{};
}

// Nothing when it cannot be relied on what the alarm is about.
std::optional<SDK::AlarmFacts> FactsOf(const Json::Value& alarm, const AlarmContext& context, SDK::SystemView& system)
{
    const Json::Value& processes = Member(alarm, "process_info");
    const std::string container = Text(Member(alarm, "resource_info"), "container_id");
    if (context.tid <= 0 || !processes.isArray() || processes.size() != 1 || container.empty() ||
        container != context.container) {
        return std::nullopt;
    }
    const auto record = system.ContainerRecord(container);
    if (record == nullptr) {
        return std::nullopt;
    }
    return SDK::AlarmFacts{SDK::DetectorOf(Text(alarm, "event_name")),
                           record->imageName,
                           record->imageId,
                           record->imageDigest,
                           record->pod.nameSpace,
                           record->labels,
                           ExecutableOf(context)};
}

}  // namespace

void Exceptions::Replace(std::vector<SDK::ExceptionRule> next)
{
    for (const SDK::ExceptionRule& rule : next) {
        CounterOf(rule.name);  // shown from now on, though it holds for nothing yet
    }
    const auto list = next.empty() ? nullptr : std::make_shared<const std::vector<SDK::ExceptionRule>>(std::move(next));
    const std::lock_guard lock(mutex);
    rules = list;
}

Exceptions::RuleList Exceptions::Rules() const
{
    const std::lock_guard lock(mutex);
    return rules;
}

std::optional<Exceptions::Match> Exceptions::Find(const Alarm& alarm, const AlarmContext& context,
                                                  SDK::SystemView& system) const
{
    const RuleList list = Rules();
    const auto facts = list != nullptr ? FactsOf(alarm.document, context, system) : std::nullopt;
    if (!facts) {
        return std::nullopt;
    }
    const auto rule = std::find_if(list->begin(), list->end(),
                                   [&facts](const SDK::ExceptionRule& each) { return each.Holds(*facts); });
    if (rule == list->end()) {
        return std::nullopt;
    }
    return Match{rule->name, !rule->executable.empty() && facts->detector->isHourly};
}

void Exceptions::Count(const Match& match)
{
    static SDK::Counters::Counter& all = SDK::Counters::Get(SDK::CounterName::alarmsExcepted);
    ++all;
    ++CounterOf(match.name);
}

}  // namespace Engine
