// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <unordered_set>

namespace Engine {

// The settings of the detection task, as every detector receives them.
struct ContainerEscapeDetectPolicyContent {
    // Host paths to guard, each kept whole: a path, or a path, the separator "*/*" and permission letters.
    std::unordered_set<std::string> hostDirectories;
    // Names of system calls that raise an alarm whenever a container makes them.
    std::unordered_set<std::string> highRiskCalls;
};

}  // namespace Engine
