// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>

namespace Engine {

// The owner of states, counters, hourly gates and of the alarm filter's entries.
enum class Scope : std::uint8_t {
    Thread,     // the thread; for gates of high-risk calls and for the filter the host
    Container,  // the container, so that no container silences another
};

// The settings of the detection task, as every detector receives them.
struct ContainerEscapeDetectPolicyContent {
    // Host paths to guard, each kept whole: a path, or a path, the separator "*/*" and permission letters.
    std::unordered_set<std::string> hostDirectories;
    // Names of system calls that raise an alarm whenever a container makes them.
    std::unordered_set<std::string> highRiskCalls;
    Scope scope = Scope::Thread;
};

}  // namespace Engine
