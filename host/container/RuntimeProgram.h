// SPDX-License-Identifier: Apache-2.0
// How a container runtime names its own program when it re-executes itself to set a container up.
#pragma once

#include <string_view>

namespace Engine {

// Whether `filename`, as execve(2) got it, is one of the forms in which a program re-executes itself: "/proc/self/exe",
// "/proc/self/fd/N", "/proc/thread-self/fd/N", "/proc/N/exe", "/proc/N/fd/M", and "/dev/fd/N", which the kernel makes
// of fexecve(3) (alloc_bprm() in fs/exec.c). A memfd's own name is never seen here; a file of an image may be called
// so. Hostile input: an image's entry point may have such a name too, so the form alone proves nothing.
bool IsSelfExecution(std::string_view filename);

}  // namespace Engine
