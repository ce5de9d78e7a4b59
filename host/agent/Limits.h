// SPDX-License-Identifier: Apache-2.0
// The process's resource limits. A process of the same user, or with CAP_SYS_RESOURCE, can lower them from outside
// (prlimit(2)): descriptors, sizes of files and CPU time would run out.
#pragma once

#include <sys/resource.h>

#include <array>
#include <string>
#include <vector>

namespace Agent {

class Limits {
public:
    // Those in force now are the right ones.
    Limits();

    // Puts back what was changed since; a line for each. A hard limit is raised with CAP_SYS_RESOURCE only, and without
    // it the lower one becomes the right one, so that it is told of once.
    std::vector<std::string> Restore();

private:
    std::array<rlimit, RLIMIT_NLIMITS> right{};
};

}  // namespace Agent
