// SPDX-License-Identifier: Apache-2.0
// The arguments of system calls as people read them.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Engine::CallArguments {

// By name, as the kernel's trace event of the call names them: flags and commands by their names in the kernel's
// headers, "CLONE_NEWNS|0x1", file descriptors and other numbers below 2^32 as integers, all others in hexadecimal:
// they are addresses in the process, and what lies there is not recorded. `call`: without "sys_enter_".
Json::Value Describe(const std::string& call, const std::vector<std::pair<std::string, std::int64_t>>& arguments);

}  // namespace Engine::CallArguments
