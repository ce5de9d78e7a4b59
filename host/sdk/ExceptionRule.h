// SPDX-License-Identifier: Apache-2.0
// An operator's exception: which alarms are not delivered. Pure.
//
// What a rule compares is out of reach of a process in a container: what the engine, or root alone, says about the
// container, and the detector. The path of the executable is not, as a container may put any program at any path: it
// narrows a rule, but says nothing about a container.
#pragma once

#include <json/value.h>

#include <array>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace SDK {

// A detector by the name that operators know, and the name of its alarms. The agent's own alarms have none.
struct Detector {
    const char* name;
    const char* alarm;
    bool isHourly;  // raises one alarm for each container in an hour, or for each of its calls
};
inline constexpr std::array<Detector, 5> detectors{{{"high-risk calls", "High-Risk System Invocation", true},
                                                    {"Shocker", "Shocker attack", true},
                                                    {"brute-forced file handles", "Bruteforce syscall attack", true},
                                                    {"watched directories", "Container file escape attack", false},
                                                    {"namespace switches", "Namespace switch attack", false}}};

// Null for an alarm of no detector.
const Detector* DetectorOf(std::string_view alarmName);

using Labels = std::map<std::string, std::string>;

// What is known about an alarm; what is not known is empty.
struct AlarmFacts {
    const Detector* detector = nullptr;  // null: of none
    std::string image;                   // as the engine has it
    std::string imageId;
    std::string imageDigest;
    std::string nameSpace;  // of the pod
    Labels labels;
    std::string executable;
};

// All that is given must hold; what is empty is not given. Image, digest or namespace is.
struct ExceptionRule {
    std::string name;
    std::string image;   // a full reference
    std::string digest;  // of the image, or its id
    std::string nameSpace;
    Labels labels;
    std::string executable;
    std::set<std::string> detectors;  // by their names

    // Never for an alarm of no detector.
    bool Holds(const AlarmFacts& alarm) const;

    // Whether it holds wherever `other` does.
    bool Covers(const ExceptionRule& other) const;

    // As in the configuration.
    Json::Value ToJson() const;
};

}  // namespace SDK
