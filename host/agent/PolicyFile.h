// SPDX-License-Identifier: Apache-2.0
// The operator's policy document: read, and checked before anything starts or changes because of it.
//   {"content": {"image_white_namelist": [...],
//                "container_escape_detect_task": {"highrisk_calls": [...], "host_directorys": [...],
//                                                 "scope": "thread" or "container"}}}      the scope may be left out
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Agent {

// A document that has the form above. The modules parse the text for themselves.
struct Policy {
    using Entries = std::map<std::string, std::string>;  // with their places, "line 3, column 7", counted in bytes

    std::string text;    // as it is delivered
    std::string sha256;  // of the text, in hexadecimal digits
    Entries images;
    Entries calls;
    Entries directories;
    bool isScopeContainer = false;
    // What no module reads, or reads otherwise than was meant, and entries that can do nothing on any machine, with
    // their places.
    std::vector<std::string> warnings;
};

// Reads and parses. Throws BadInput with the path, the place and the reason.
Policy LoadPolicy(const std::string& path);

// Throws BadInput with the place, "line 3, column 7", the key's path where there is one,
// "content.image_white_namelist[2]", and the reason.
Policy ParsePolicy(std::string text);

// What becomes of a policy's entries.
struct PolicyCoverage {
    std::size_t calls = 0;               // that are watched
    std::size_t directories = 0;         // that are watched, or will be when they are made
    std::vector<std::string> detectors;  // that need no entry in the policy, and have all of their calls recorded
    bool hasAllDetectors = true;
    std::vector<std::string> warnings;  // the policy's, and a line for each entry that is not watched (yet)
};

// What the kernel does for the agent now.
struct KernelCoverage {
    std::set<std::string> events;                // that are recorded, "system:event"
    std::map<std::string, std::string> watches;  // as FileStatus::Watches
    std::string callEventsDir;                   // tracefs's events/syscalls: the calls that the kernel knows
};

// A directory that does not exist is watched when it is made in the scope "container" only.
PolicyCoverage Examine(const Policy& policy, const KernelCoverage& kernel);

}  // namespace Agent
