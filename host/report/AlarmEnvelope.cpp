// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmEnvelope.h"

#include <sys/utsname.h>

#include <array>
#include <ctime>

#include "host/report/CallArguments.h"
#include "host/sdk/Counters.h"
#include "host/sdk/JsonMembers.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

using SDK::JsonMembers::Member;
using SDK::JsonMembers::Text;

constexpr int version = 1;
constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

std::string BootId()
{
    constexpr long digits = 36;
    std::string id;
    SDK::FileUtils::ReadFile("/proc/sys/kernel/random/boot_id", id, digits);
    return id;
}

// On CLOCK_REALTIME.
Json::Value TimeOf(std::chrono::nanoseconds when)
{
    const std::int64_t time = when.count();
    std::string fraction = std::to_string(nanosecondsPerSecond + time % nanosecondsPerSecond);
    fraction.front() = '.';
    return AlarmEnvelope::Timestamp(time / nanosecondsPerSecond) + fraction + "Z";
}

// What is empty could not be had.
Json::Value TextOrNull(const std::string& text)
{
    return text.empty() ? Json::Value{} : Json::Value{text};
}

template <class T>
Json::Value NumberOrNull(const std::optional<T>& number)
{
    return number ? Json::Value{*number} : Json::Value{};
}

template <class Texts>
Json::Value List(const Texts& texts)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

Json::Value Arguments(const SDK::ProcessDetails& process, const SDK::Redaction& redaction)
{
    return process.arguments.empty() ? Json::Value{} : List(redaction.Apply(process.arguments));
}

Json::Value ProcessOf(const AlarmContext* context, const SDK::Redaction& redaction)
{
    Json::Value described;
    if (context == nullptr || context->tid <= 0) {
        return described;
    }
    const SDK::ProcessDetails process = context->process.value_or(SDK::ProcessDetails{});
    described["tid"] = context->tid;
    described["pid"] = process.process > 0 ? Json::Value{process.process} : Json::Value{};
    described["started"] =
        process.started.count() != 0 ? TimeOf(process.started + context->clockOffset) : Json::Value{};
    described["exe"] = TextOrNull(process.executable);
    described["argv"] = Arguments(process, redaction);
    described["cwd"] = TextOrNull(process.workingDirectory);
    described["uid"] = NumberOrNull(process.uid);
    described["gid"] = NumberOrNull(process.gid);
    described["loginuid"] = NumberOrNull(process.loginUid);
    described["capabilities"] = TextOrNull(process.capabilities);
    described["ancestors"] = context->process ? Json::Value(Json::arrayValue) : Json::Value{};
    for (const SDK::ProcessDetails& ancestor : context->ancestors) {
        Json::Value each;
        each["pid"] = ancestor.process;
        each["exe"] = TextOrNull(ancestor.executable);
        each["argv"] = Arguments(ancestor, redaction);
        described["ancestors"].append(each);
    }
    return described;
}

// An exception may go by what is known of the container.
bool IsVouchedFor(const std::string& container)
{
    return SDK::SystemView::Current().ContainerRecord(container) != nullptr;
}

Json::Value ContainerOf(const std::string& id, const SDK::ContainerNames* names)
{
    Json::Value described;
    if (id.empty()) {
        return described;
    }
    const auto known = names == nullptr ? nullptr : names->Find(id);
    const ContainerInfo info = known == nullptr ? ContainerInfo{} : *known;
    described["engine"] = TextOrNull(info.engine);
    described["id"] = id;
    described["vouched"] = known == nullptr ? Json::Value{} : Json::Value{IsVouchedFor(id)};
    described["name"] = TextOrNull(info.name);
    described["image"] = TextOrNull(info.imageName);
    described["image_id"] = TextOrNull(info.imageId);
    described["digest"] = TextOrNull(info.imageDigest);
    described["privileged"] = NumberOrNull(info.privileged);
    described["labels"] = known == nullptr ? Json::Value{} : Json::Value(Json::objectValue);
    for (const auto& [key, value] : info.labels) {
        described["labels"][key] = value;
    }
    described["pod"] = TextOrNull(info.pod.name);
    described["namespace"] = TextOrNull(info.pod.nameSpace);
    described["pod_uid"] = TextOrNull(info.pod.uid);
    described["mounts"] = known == nullptr ? Json::Value{} : List(info.mountDestinations);
    return described;
}

// The alarm may be about another call than the one that it was raised at.
Json::Value EventOf(const Json::Value& document, const AlarmContext* context)
{
    const std::string named = Text(Member(document, "forensic_info"), "sys_call");
    const bool isDelivered = context != nullptr && !context->call.empty() && (named.empty() || named == context->call);
    Json::Value described;
    described["call"] = TextOrNull(isDelivered ? context->call : named);
    described["args"] = isDelivered ? CallArguments::Describe(context->call, context->arguments) : Json::Value{};
    return described;
}

bool IsLoss(const std::string& counter)
{
    return !counter.starts_with(SDK::CounterName::exceptedPrefix) &&
           (counter.find(".lost") != std::string::npos || counter.find(".shed") != std::string::npos ||
            counter == SDK::CounterName::notifyOverflow);
}

}  // namespace

std::string AlarmEnvelope::Timestamp(std::int64_t seconds)
{
    const std::time_t time{seconds};
    tm parts{};
    std::array<char, 32> text{};
    ::gmtime_r(&time, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    return text.data();
}

// The document goes in as it is.
std::string AlarmEnvelope::Make(const std::string& alarm, const Json::Value& document, const AlarmContext* context,
                                const SDK::ContainerNames* names, const std::string& policy,
                                const std::string& exception)
{
    static const std::string bootId = BootId();
    utsname host{};
    ::uname(&host);
    Json::Value envelope;
    envelope["v"] = version;
    envelope["time"] =
        context == nullptr || !context->event ? Json::Value{} : TimeOf(*context->event + context->clockOffset);
    envelope["host"]["node"] = host.nodename;
    envelope["host"]["boot_id"] = TextOrNull(bootId);
    envelope["host"]["labels"] = settings.hostLabels;
    envelope["agent"]["version"] = CE_VERSION;
    envelope["agent"]["policy_sha256"] = TextOrNull(policy);
    envelope["process"] = ProcessOf(context, settings.redaction);
    envelope["container"] = ContainerOf(Text(Member(document, "resource_info"), "container_id"), names);
    envelope["event"] = EventOf(document, context);
    if (!exception.empty()) {
        envelope["excepted"] = exception;
    }
    envelope["losses"] = Json::Value(Json::objectValue);
    for (const auto& [name, count] : SDK::Counters::Snapshot()) {
        std::uint64_t& before = lossesBefore[name];
        if (IsLoss(name) && count != before) {
            envelope["losses"][name] = Json::UInt64{count - before};
        }
        before = count;
    }
    std::string text = SDK::JsonUtils::JsonToString(envelope);
    text.resize(text.rfind('}'));
    return text + ",\"alarm\":" + alarm + "}";
}

}  // namespace Engine
