// SPDX-License-Identifier: Apache-2.0
// The key "exceptions" of the configuration: alarms that are not delivered.
//   [{"name": "backup", "image": "registry.example/shop/backup:7", "executable": "/usr/bin/backup",
//     "detectors": ["high-risk calls"]}]
// All members of an exception must hold. "name" and one of "image", "digest" and "namespace" are required: an image
// brings labels of its own, and a container any program at any path, so neither says which container it is.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "host/agent/Document.h"
#include "host/sdk/ExceptionRule.h"

namespace Agent {

struct Options;
struct Policy;

using ExceptionRules = std::vector<SDK::ExceptionRule>;

inline constexpr char exceptionsKey[] = "exceptions";
inline constexpr std::size_t maxExceptions = 256;

// `list`: the key's value. Throws BadInput with place and reason.
ExceptionRules ParseExceptions(const Document& document, const Json::Value& list);

// Whether one of them holds for some programs of a container only.
bool TellApartPrograms(const ExceptionRules& rules);

// As a list in the configuration.
Json::Value ToJson(const ExceptionRules& rules);

// "exception \"NAME\": {...}"
std::string Describe(const SDK::ExceptionRule& rule);

// What there is to warn of: exceptions that can do nothing, or more than is meant.
std::vector<std::string> DoubtsAbout(const ExceptionRules& rules, const Options& options, const Policy& policy);

}  // namespace Agent
