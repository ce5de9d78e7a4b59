// SPDX-License-Identifier: Apache-2.0
#include "host/agent/ExceptionRules.h"

#include <algorithm>
#include <utility>

#include "host/agent/Console.h"
#include "host/agent/Nearest.h"
#include "host/agent/Options.h"
#include "host/agent/PolicyFile.h"
#include "host/sdk/ImageReference.h"
#include "sdk/JsonUtils.h"
#include "sdk/StrUtils.h"

namespace Agent {

namespace {

const std::vector<std::string> keys{"name", "image", "digest", "labels", "namespace", "executable", "detectors"};

std::vector<std::string> DetectorNames()
{
    std::vector<std::string> names;
    names.reserve(SDK::detectors.size());
    for (const SDK::Detector& detector : SDK::detectors) {
        names.emplace_back(detector.name);
    }
    return names;
}

// One exception of the document.
class Entry {
public:
    Entry(const Document& document, const Json::Value& entry, std::string path)
        : document(document), entry(entry), path(std::move(path))
    {
        document.Demand(entry, Json::objectValue, this->path);
        for (const std::string& key : entry.getMemberNames()) {
            if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
                Refuse(entry[key], std::string{this->path}
                                       .append(": unknown key \"")
                                       .append(key)
                                       .append("\"")
                                       .append(NearestInWords(key, keys)));
            }
        }
    }

    // Empty when it is not there.
    std::string Text(const char* key) const { return entry.isMember(key) ? TextOf(entry[key], Path(key)) : ""; }

    SDK::Labels Labels() const
    {
        SDK::Labels labels;
        if (entry.isMember("labels")) {
            const Json::Value& all = entry["labels"];
            document.Demand(all, Json::objectValue, Path("labels"));
            for (const std::string& key : all.getMemberNames()) {
                document.Demand(all[key], Json::stringValue, Path("labels") + "." + key);
                labels[key] = all[key].asString();
            }
        }
        return labels;
    }

    std::set<std::string> Detectors() const
    {
        std::set<std::string> detectors;
        if (!entry.isMember("detectors")) {
            return detectors;
        }
        const Json::Value& list = entry["detectors"];
        document.Demand(list, Json::arrayValue, Path("detectors"));
        const std::vector<std::string> known = DetectorNames();
        for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
            const std::string name = TextOf(list[i], Path("detectors"));
            if (std::find(known.begin(), known.end(), name) == known.end()) {
                Refuse(list[i], Path("detectors") + ": \"" + name + "\" is no detector" + NearestInWords(name, known));
            }
            detectors.insert(name);
        }
        if (detectors.empty()) {
            Refuse(list, Path("detectors") + ": is empty; without it the exception is for all of them");
        }
        return detectors;
    }

    // `reason`: null when there is nothing to refuse.
    void RefuseIf(const char* reason, const char* key) const
    {
        if (reason != nullptr) {
            Refuse(entry.isMember(key) ? entry[key] : entry, Path(key) + ": " + reason);
        }
    }

private:
    std::string Path(const char* key) const { return path + "." + key; }

    std::string TextOf(const Json::Value& value, const std::string& name) const
    {
        document.Demand(value, Json::stringValue, name);
        if (value.asString().empty()) {
            Refuse(value, name + ": is empty");
        }
        return value.asString();
    }

    [[noreturn]] void Refuse(const Json::Value& value, const std::string& what) const
    {
        throw BadInput(document.PlaceOf(value) + ": " + what);
    }

    const Document& document;
    const Json::Value& entry;
    std::string path;
};

// It is a part of a counter's name.
const char* WhyNoName(const std::string& name)
{
    constexpr std::size_t maxBytes = 64;
    if (name.empty()) {
        return "is missing: alarms are counted by it";
    }
    const bool isPlain =
        name.size() <= maxBytes &&
        name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-") == std::string::npos;
    return isPlain ? nullptr : "must be 1 to 64 letters, digits, '_' and '-'";
}

SDK::ExceptionRule Parse(const Entry& entry)
{
    SDK::ExceptionRule rule{entry.Text("name"), entry.Text("image"),      entry.Text("digest"), entry.Text("namespace"),
                            entry.Labels(),     entry.Text("executable"), entry.Detectors()};
    entry.RefuseIf(WhyNoName(rule.name), "name");
    entry.RefuseIf(rule.image.empty() ? nullptr : SDK::ImageReference::WhyNone(rule.image), "image");
    entry.RefuseIf(rule.digest.empty() || SDK::ImageReference::IsDigest(rule.digest)
                       ? nullptr
                       : "must be \"sha256:\" and 64 hexadecimal digits in lower case",
                   "digest");
    entry.RefuseIf(rule.executable.empty() || rule.executable.starts_with('/') ? nullptr : "must be an absolute path",
                   "executable");
    if (rule.image.empty() && rule.digest.empty() && rule.nameSpace.empty()) {
        entry.RefuseIf(
            "is missing, as \"digest\" and \"namespace\" are: one of them must say which containers it is for (labels "
            "come with any image, and any container has a program at any path)",
            "image");
    }
    return rule;
}

// Why the detector raises no alarm; empty: it may.
std::string WhySilent(const std::string& detector, const Options& options, const Policy& policy)
{
    return detector == "high-risk calls" && policy.calls.empty()             ? "the policy lists no call"
           : detector == "watched directories" && policy.directories.empty() ? "the policy lists no directory"
           : detector == "namespace switches" && !options.namespaceCheck     ? "--namespace-check is not given"
                                                                             : "";
}

std::string About(const SDK::ExceptionRule& rule, const std::string& what)
{
    return "exception \"" + rule.name + "\": " + what;
}

}  // namespace

ExceptionRules ParseExceptions(const Document& document, const Json::Value& list)
{
    document.Demand(list, Json::arrayValue, exceptionsKey);
    if (list.size() > maxExceptions) {
        throw BadInput(document.PlaceOf(list) + ": more than " + std::to_string(maxExceptions) + " exceptions");
    }
    ExceptionRules rules;
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const Entry entry(document, list[i], SDK::StrUtils::Format("%s[%u]", exceptionsKey, i));
        SDK::ExceptionRule rule = Parse(entry);
        const bool isTaken = std::any_of(rules.begin(), rules.end(),
                                         [&rule](const SDK::ExceptionRule& other) { return other.name == rule.name; });
        entry.RefuseIf(isTaken ? "another exception has this name" : nullptr, "name");
        rules.push_back(std::move(rule));
    }
    return rules;
}

bool TellApartPrograms(const ExceptionRules& rules)
{
    return std::any_of(rules.begin(), rules.end(), [](const auto& rule) { return !rule.executable.empty(); });
}

Json::Value ToJson(const ExceptionRules& rules)
{
    Json::Value list(Json::arrayValue);
    for (const SDK::ExceptionRule& rule : rules) {
        list.append(rule.ToJson());
    }
    return list;
}

std::string Describe(const SDK::ExceptionRule& rule)
{
    return About(rule, SDK::JsonUtils::JsonToString(rule.ToJson()));
}

std::vector<std::string> DoubtsAbout(const ExceptionRules& rules, const Options& options, const Policy& policy)
{
    std::vector<std::string> doubts;
    for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
        for (const std::string& detector : rule->detectors) {
            const std::string reason = options.policyFile.empty() ? "" : WhySilent(detector, options, policy);
            if (!reason.empty()) {
                doubts.push_back(
                    About(*rule, std::string{"can do nothing about "}.append(detector).append(": ").append(reason)));
            }
        }
        const auto before =
            std::find_if(rules.begin(), rule, [&rule](const SDK::ExceptionRule& other) { return other.Covers(*rule); });
        if (before != rule) {
            doubts.push_back(About(*rule, "can do nothing: \"" + before->name + "\" before it holds for the same"));
        }
    }
    if (!rules.empty() && !policy.isScopeContainer && !options.policyFile.empty()) {
        doubts.emplace_back(
            "in the scope of threads an excepted alarm hides other containers' attacks: it spends the hour of its "
            "call, "
            "and two seconds of its name, for the whole host; with \"scope\": \"container\" each container has its "
            "own");
    }
    return doubts;
}

}  // namespace Agent
