// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/ExceptionRule.h"

#include <algorithm>

#include "host/sdk/ImageReference.h"

namespace SDK {

namespace {

// What is not known is not what was asked for.
bool Agrees(const std::string& wanted, const std::string& known)
{
    return wanted.empty() || wanted == known;
}

bool IsSameImage(const std::string& wanted, const std::string& known)
{
    return wanted.empty() || (!known.empty() && ImageReference::Canonical(wanted) == ImageReference::Canonical(known));
}

// A digest may come with the repository that it is of, "REPOSITORY@sha256:...".
bool HasDigest(const std::string& wanted, const AlarmFacts& alarm)
{
    return Agrees(wanted, alarm.imageId) || wanted == alarm.imageDigest.substr(alarm.imageDigest.rfind('@') + 1);
}

bool Include(const Labels& labels, const Labels& wanted)
{
    return std::all_of(wanted.begin(), wanted.end(), [&labels](const auto& label) {
        const auto found = labels.find(label.first);
        return found != labels.end() && found->second == label.second;
    });
}

}  // namespace

const Detector* DetectorOf(std::string_view alarmName)
{
    const auto* found = std::find_if(detectors.begin(), detectors.end(),
                                     [alarmName](const Detector& each) { return each.alarm == alarmName; });
    return found == detectors.end() ? nullptr : found;
}

bool ExceptionRule::Holds(const AlarmFacts& alarm) const
{
    return alarm.detector != nullptr && (detectors.empty() || detectors.contains(alarm.detector->name)) &&
           IsSameImage(image, alarm.image) && HasDigest(digest, alarm) && Agrees(nameSpace, alarm.nameSpace) &&
           Include(alarm.labels, labels) && Agrees(executable, alarm.executable);
}

bool ExceptionRule::Covers(const ExceptionRule& other) const
{
    const bool hasDetectors = detectors.empty() || (!other.detectors.empty() &&
                                                    std::includes(detectors.begin(), detectors.end(),
                                                                  other.detectors.begin(), other.detectors.end()));
    return hasDetectors && IsSameImage(image, other.image) && Agrees(digest, other.digest) &&
           Agrees(nameSpace, other.nameSpace) && Include(other.labels, labels) && Agrees(executable, other.executable);
}

Json::Value ExceptionRule::ToJson() const
{
    Json::Value rule(Json::objectValue);
    for (const auto& [key, value] : {std::pair{"name", &name},
                                     {"image", &image},
                                     {"digest", &digest},
                                     {"namespace", &nameSpace},
                                     {"executable", &executable}}) {
        if (!value->empty()) {
            rule[key] = *value;
        }
    }
    for (const auto& [key, value] : labels) {
        rule["labels"][key] = value;
    }
    for (const std::string& detector : detectors) {
        rule["detectors"].append(detector);
    }
    return rule;
}

}  // namespace SDK
