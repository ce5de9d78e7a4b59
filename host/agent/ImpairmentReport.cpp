// SPDX-License-Identifier: Apache-2.0
#include "host/agent/ImpairmentReport.h"

#include <json/value.h>

#include <array>

#include "host/sdk/Counters.h"
#include "host/sdk/Impairments.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/TimeUtils.h"

namespace Agent {

namespace {

namespace Name = SDK::CounterName;
using Source = SDK::Impairments::Source;

struct Loss {
    const char* counter;
    Source source;
    const char* cause;
    const char* detail;
};

constexpr std::array<Loss, 6> losses{{
    {Name::traceLostOverrun, Source::Trace, "trace buffer overflow", "events were overwritten before they were read"},
    {Name::traceLostDropped, Source::Trace, "event ring overflow", "events found no room in the kernel"},
    {Name::traceLostLives, Source::Trace, "event ring overflow", "forks, execs or exits found no room in the kernel"},
    {Name::traceLostPages, Source::Trace, "trace gap", "the trace has gaps or could not be read, events unknown"},
    {Name::queueLost, Source::Trace, "task queue overflow", "events were refused by a full queue"},
    {Name::notifyOverflow, Source::Files, "file notification overflow", "the kernel's queue was full, events unknown"},
}};

Json::Value Document(const std::string& cause, const std::string& container, std::uint64_t count,
                     const std::string& detail, Engine::ContainerMetaInfo* names)
{
    constexpr int severity = 3;  // as high-risk calls have it
    constexpr int confidence = 100;
    Json::Value document;
    document["event_name"] = "Detection impaired";
    document["event_classid"] = "containerescape_agent_0001";
    document["detect_module"] = "containerescape_agent";
    document["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    document["occur_time"] = Json::Int64{SDK::TimeUtils::GetCurrentTimestampS()};
    document["event_count"] = 1;
    document["severity"] = severity;
    document["confidence"] = confidence;
    document["forensic_info"]["cause"] = cause;
    document["forensic_info"]["count"] = Json::UInt64{count};
    document["forensic_info"]["detail"] = detail;
    document["resource_info"] = Json::Value();
    std::shared_ptr<Engine::ContainerInfo> info;
    if (!container.empty()) {
        document["resource_info"]["container_id"] = container;
    }
    if (!container.empty() && names != nullptr && names->GetContainerById(container, info)) {
        document["resource_info"]["image_id"] = info->imageId;
        document["container_name"] = info->name;
        document["image_name"] = info->imageName;
    }
    return document;
}

}  // namespace

void ImpairmentReport::Look(Clock::time_point now, const CounterValues& counters, Engine::ContainerMetaInfo* names)
{
    for (const Loss& loss : losses) {
        const auto value = counters.find(loss.counter);
        std::uint64_t& before = seen[loss.counter];
        if (value != counters.end() && value->second != before) {
            Add(loss.cause, SDK::Impairments::Loudest(loss.source), value->second - before, loss.detail);
            before = value->second;
        }
    }
    for (const SDK::Impairments::Item& item : SDK::Impairments::Take()) {
        Add(item.cause, {}, 1, item.detail);
    }
    for (auto next = entries.begin(); next != entries.end();) {
        const auto& [cause, container] = next->first;
        Entry& entry = next->second;
        if (now < entry.quietUntil) {
            ++next;
        } else if (entry.pending == 0) {
            next = entries.erase(next);
        } else {
            send(SDK::JsonUtils::JsonToString(Document(cause, container, entry.pending, entry.detail, names)));
            entry = {0, entry.detail, now + pause};
            ++next;
        }
    }
}

std::map<std::string, std::string> ImpairmentReport::Lately() const
{
    std::map<std::string, std::string> causes;
    for (const auto& [key, entry] : entries) {
        causes[key.first] = entry.detail;
    }
    return causes;
}

void ImpairmentReport::Add(const std::string& cause, const std::string& container, std::uint64_t count,
                           const std::string& detail)
{
    const Key key{cause, container};
    const bool hasRoom = entries.size() < maxKept || entries.contains(key);
    Entry& entry = hasRoom ? entries[key] : entries[{cause, {}}];
    entry.pending += count;
    entry.detail = detail;
}

}  // namespace Agent
