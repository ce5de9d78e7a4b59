// SPDX-License-Identifier: Apache-2.0
// How a container runtime names its own program when it re-executes itself to set a container up.
#pragma once

#include <string_view>

namespace Engine {

// Whether `filename`, as execve(2) got it, is one of the forms in which a program re-executes itself: "/proc/self/exe",
// "/proc/self/fd/N", "/proc/thread-self/fd/N", "/dev/fd/N", "/proc/N/exe", "/proc/N/fd/M", "memfd:...", "/memfd:...".
// Hostile input: an image's entry point may have such a name too, so the form alone proves nothing.
bool IsSelfExecution(std::string_view filename);

}  // namespace Engine
