// SPDX-License-Identifier: Apache-2.0
// The configuration file: a JSON object whose keys are the command line's options, without their dashes.
//   {"policy": "/etc/containerescape-agent/policy.json", "alarms-max-mb": 100, "require-all": true}
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Agent {

// A member of the file.
struct Setting {
    std::string key;
    std::string word;   // the option as on the command line, "--key=value"; empty: a flag that is false
    std::string value;  // as text
    std::string place;  // "FILE, line 3, column 7"
};

// What the file sets, in the order of the keys. `isFlag` tells whether an option is one; it throws BadInput for an
// option that there is not. `warnings` as Document::Read. Throws BadInput with file, place and reason.
std::vector<Setting> ReadConfiguration(const std::string& path,
                                       const std::function<bool(const std::string& key)>& isFlag,
                                       std::vector<std::string>& warnings);

// The most similar of `names`, in case it was mistyped; empty when none is similar.
std::string Nearest(const std::string& name, const std::vector<std::string>& names);

}  // namespace Agent
