// SPDX-License-Identifier: Apache-2.0
// The configuration file: a JSON object whose keys are the command line's options, without their dashes, and
// "exceptions" (ExceptionRules).
//   {"policy": "/etc/containerescape-agent/policy.json", "alarms-max-mb": 100, "require-all": true,
//    "engine": ["docker=/run/docker.sock", "cri=/run/containerd/containerd.sock"]}
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/agent/ExceptionRules.h"

namespace Agent {

// A member of the file.
struct Setting {
    std::string key;
    std::vector<std::string> words;  // as on the command line, "--key=value"; none for a flag that is false
    std::string value;               // as text
    std::string place;               // "FILE, line 3, column 7"
};

enum class OptionKind { Flag, Value, List };

struct Configuration {
    std::vector<Setting> settings;  // in the order of the keys; that of the exceptions has no word
    ExceptionRules exceptions;
};

// What the file sets. `options`: the keys that there are. `warnings` as Document::Read. Throws BadInput with file,
// place and reason.
Configuration ReadConfiguration(const std::string& path, const std::map<std::string, OptionKind>& options,
                                std::vector<std::string>& warnings);

}  // namespace Agent
