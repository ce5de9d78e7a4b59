// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Tune.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include "host/agent/Console.h"
#include "host/sdk/ImageReference.h"
#include "host/sdk/JsonMembers.h"
#include "host/sdk/SafeText.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

using SDK::JsonMembers::Member;
using SDK::JsonMembers::Text;

struct Alarm {
    std::string name;
    SDK::AlarmFacts facts;
    bool hasContainer = false;
    bool isDisowned = false;  // only an unprivileged user of the host speaks for its container
    bool isEnvelope = false;
    std::string exception;  // that held for it when it was raised; empty: none did
};

std::string DigestIn(const std::string& text)
{
    const std::string digest = text.substr(text.rfind('@') + 1);
    return SDK::ImageReference::IsDigest(digest) ? digest : std::string{};
}

SDK::Labels LabelsIn(const Json::Value& value)
{
    SDK::Labels labels;
    for (const std::string& key : value.isObject() ? value.getMemberNames() : Json::Value::Members{}) {
        labels[key] = Text(value, key.c_str());
    }
    return labels;
}

// Nothing when the line is no alarm.
std::optional<Alarm> Read(const std::string& line)
{
    const std::optional<Json::Value> root = SDK::JsonMembers::Parse(line);
    const Json::Value none;
    const Json::Value& envelope = root ? *root : none;
    Alarm alarm;
    alarm.isEnvelope = Member(envelope, "alarm").isObject();
    const Json::Value& document = alarm.isEnvelope ? envelope["alarm"] : envelope;
    const Json::Value& container = Member(envelope, "container");
    const Json::Value& resource = Member(document, "resource_info");
    alarm.name = Text(document, "event_name");
    if (alarm.name.empty()) {
        return std::nullopt;
    }
    alarm.exception = Text(envelope, "excepted");
    alarm.hasContainer = !Text(resource, "container_id").empty();
    alarm.isDisowned = alarm.isEnvelope && Member(container, "vouched") != true;
    alarm.facts.detector = SDK::DetectorOf(alarm.name);
    alarm.facts.image = alarm.isEnvelope ? Text(container, "image") : Text(document, "image_name");
    alarm.facts.imageId = DigestIn(alarm.isEnvelope ? Text(container, "image_id") : Text(resource, "image_id"));
    alarm.facts.imageDigest = DigestIn(Text(container, "digest"));
    alarm.facts.nameSpace = Text(container, "namespace");
    alarm.facts.labels = LabelsIn(Member(container, "labels"));
    alarm.facts.executable = Text(Member(envelope, "process"), "exe");
    return alarm;
}

// The narrowest exception that holds for the alarm, as far as an exception can say what it is about. Without a name.
SDK::ExceptionRule NarrowestFor(const SDK::AlarmFacts& facts)
{
    constexpr char replaced[] = "\xEF\xBF\xBD";  // stands for bytes that JSON does not hold
    SDK::ExceptionRule rule;
    rule.image = SDK::ImageReference::WhyNone(facts.image) == nullptr ? facts.image : std::string{};
    rule.digest = facts.imageId.empty() ? facts.imageDigest : facts.imageId;
    rule.nameSpace = facts.nameSpace;
    const bool isExact = facts.executable.starts_with('/') && SDK::SafeText::IsUtf8(facts.executable) &&
                         facts.executable.find(replaced) == std::string::npos;
    rule.executable = isExact ? facts.executable : std::string{};
    if (facts.detector != nullptr) {
        rule.detectors.insert(facts.detector->name);
    }
    return rule;
}

// Why no exception would hold for the alarm; empty: one would.
std::string WhyNone(const Alarm& alarm, const SDK::ExceptionRule& rule)
{
    return alarm.facts.detector == nullptr ? "no exception holds for alarms of this name"
           : !alarm.hasContainer           ? "its container is not known"
           : alarm.isDisowned              ? "neither an engine nor root speaks for its container"
           : rule.image.empty() && rule.digest.empty() && rule.nameSpace.empty()
               ? "neither its image nor its pod's namespace is known"
               : "";
}

std::string WhatItCovers(const Alarm& alarm, const SDK::ExceptionRule& rule)
{
    return !rule.executable.empty() ? "would be silenced by"
           : !alarm.isEnvelope      ? "would be silenced, for every program, as only envelopes tell of programs, by"
           : alarm.facts.executable.empty()
               ? "would be silenced, for every program, as this one had ended by then, by"
               : "would be silenced, for every program, as this one's path cannot be written, by";
}

// Alarms that one exception would silence, or that are alike where none would.
struct Kind {
    std::uint64_t alarms = 0;
    Alarm first;
    SDK::ExceptionRule rule;
    std::string obstacle;  // why none would; empty: one would
};

class Tally {
public:
    explicit Tally(const ExceptionRules& rules) : rules(rules) {}

    void Add(const std::string& line)
    {
        ++lines;
        std::optional<Alarm> alarm = Read(line);
        if (!alarm) {
            Break();
            return;
        }
        ++alarms;
        const auto rule = std::find_if(rules.begin(), rules.end(), [&alarm](const SDK::ExceptionRule& each) {
            return !alarm->isDisowned && each.Holds(alarm->facts);
        });
        if (!alarm->exception.empty() || rule != rules.end()) {
            const std::string& name = alarm->exception.empty() ? rule->name : alarm->exception;
            ++excepted[excepted.size() < maxKinds || excepted.contains(name) ? name : "others"];
            return;
        }
        Sort(std::move(*alarm));
    }

    // A line that is too long.
    void AddBroken()
    {
        ++lines;
        Break();
    }

    std::string InWords() const
    {
        std::string text = Line(std::to_string(alarms) + " alarms in " + std::to_string(lines) + " lines");
        if (broken != 0) {
            text += Line(std::to_string(broken) + " lines are no alarms: " + brokenLines);
        }
        for (const auto& [name, number] : excepted) {
            text += Line(std::to_string(number) + " of them excepted by " + name);
        }
        std::vector<const Kind*> sorted;
        for (const auto& [key, kind] : kinds) {
            sorted.push_back(&kind);
        }
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const Kind* a, const Kind* b) { return a->alarms > b->alarms; });
        for (std::size_t i = 0; i < sorted.size(); ++i) {
            text += InWords(*sorted[i], i + 1);
        }
        return text + (others == 0 ? "" : Line(std::to_string(others) + " more of further kinds"));
    }

private:
    void Break()
    {
        constexpr std::uint64_t shown = 20;
        if (++broken <= shown) {
            brokenLines += (broken == 1 ? "line " : ", ") + std::to_string(lines);
        } else if (broken == shown + 1) {
            brokenLines += " and more";
        }
    }

    void Sort(Alarm alarm)
    {
        SDK::ExceptionRule rule = NarrowestFor(alarm.facts);
        std::string obstacle = WhyNone(alarm, rule);
        const std::string key = obstacle + '\n' + alarm.name + '\n' + alarm.facts.image + '\n' +
                                alarm.facts.executable + '\n' + SDK::JsonUtils::JsonToString(rule.ToJson());
        if (kinds.size() >= maxKinds && !kinds.contains(key)) {
            ++others;
            return;
        }
        Kind& kind = kinds[key];
        if (++kind.alarms == 1) {
            kind.first = std::move(alarm);
            kind.rule = std::move(rule);
            kind.obstacle = std::move(obstacle);
        }
    }

    // One that no exception has yet.
    std::string NameFor(const SDK::ExceptionRule& rule, std::size_t number) const
    {
        constexpr std::size_t maxBytes = 40;
        const std::string& image = rule.image.empty() ? rule.nameSpace : rule.image;
        std::string name = image.substr(image.rfind('/') + 1);
        if (!rule.executable.empty()) {
            name += rule.executable.substr(rule.executable.rfind('/'));
        }
        name = name.substr(0, maxBytes);
        std::replace_if(
            name.begin(), name.end(), [](unsigned char c) { return c > 'z' || std::isalnum(c) == 0; }, '-');
        const std::string numbered = name + "-" + std::to_string(number);
        const bool isTaken = std::any_of(rules.begin(), rules.end(),
                                         [&](const SDK::ExceptionRule& each) { return each.name == numbered; });
        return isTaken ? NameFor(rule, number + maxKinds) : numbered;
    }

    std::string InWords(const Kind& kind, std::size_t number) const
    {
        const SDK::AlarmFacts& facts = kind.first.facts;
        std::string text = "\n" + Line(std::to_string(kind.alarms) + " x " + kind.first.name + ", image " +
                                       (facts.image.empty() ? "unknown" : facts.image) + ", program " +
                                       (facts.executable.empty() ? "unknown" : facts.executable));
        if (!kind.obstacle.empty()) {
            return text + Line("  cannot be silenced: " + kind.obstacle);
        }
        SDK::ExceptionRule rule = kind.rule;
        rule.name = NameFor(rule, number);
        return text + Line("  " + WhatItCovers(kind.first, rule)) +
               Line("  " + SDK::JsonUtils::JsonToString(rule.ToJson()));
    }

    const ExceptionRules& rules;
    std::map<std::string, Kind> kinds;
    std::map<std::string, std::uint64_t> excepted;  // by the name of the exception
    std::uint64_t lines = 0;
    std::uint64_t alarms = 0;
    std::uint64_t others = 0;
    std::uint64_t broken = 0;
    std::string brokenLines;
};

}  // namespace

std::string Tune(std::istream& alarms, const ExceptionRules& rules)
{
    Tally tally(rules);
    std::string line(maxAlarmBytes + 1, '\0');
    while (alarms.getline(line.data(), static_cast<std::streamsize>(line.size())) || alarms.gcount() != 0) {
        const bool isTooLong = alarms.fail() && !alarms.eof();
        if (isTooLong) {
            alarms.clear();
            alarms.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
            tally.AddBroken();
        } else {
            tally.Add(line.substr(0, static_cast<std::size_t>(alarms.gcount()) - (alarms.eof() ? 0 : 1)));
        }
    }
    return tally.InWords();
}

std::string Tune(const std::string& path, const ExceptionRules& rules)
{
    std::ifstream file(path);
    if (!file || (file.peek(), file.bad())) {
        throw BadInput("alarms file " + path + ": " + std::strerror(errno));
    }
    return Tune(file, rules);
}

}  // namespace Agent
