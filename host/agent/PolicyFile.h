// SPDX-License-Identifier: Apache-2.0
// The operator's policy document: read, and checked before anything starts or changes because of it.
//   {"content": {"image_white_namelist": [...],
//                "container_escape_detect_task": {"highrisk_calls": [...], "host_directorys": [...]}}}
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace Agent {

struct Policy {
    std::string text;  // the document, as it is delivered
    std::set<std::string> images;
    std::set<std::string> calls;
    std::set<std::string> directories;
    std::vector<std::string> unknownKeys;  // their paths; nobody reads them
};

constexpr std::size_t maxPolicyBytes = 1U << 20U;

// Throws BadInput: not a readable regular file, or larger than maxPolicyBytes.
std::string ReadPolicyFile(const std::string& path);

// Throws BadInput with the place ("line 3, column 7", or the key's path, "content.image_white_namelist[2]") and the
// reason.
Policy ParsePolicy(std::string text);

// The listed calls for which `callEventsDir` (tracefs's events/syscalls) has an entry event.
std::set<std::string> TraceableCalls(const Policy& policy, const std::string& callEventsDir);

// What the modules would leave out without a word, one line for each entry: calls that are not traceable, directories
// that do not exist or whose permission letters are malformed.
std::vector<std::string> UselessCalls(const Policy& policy, const std::string& callEventsDir);
std::vector<std::string> UselessDirectories(const Policy& policy);

}  // namespace Agent
