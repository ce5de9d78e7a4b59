// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/SyscallNumbers.h"

#include <seccomp.h>

#include <algorithm>
#include <string_view>

namespace Engine {

SyscallNumbers SyscallNumbers::OfEntry(const std::string& event)
{
    constexpr std::string_view prefix = "sys_enter_";
    if (!event.starts_with(prefix)) {
        return {};
    }
    const char* const name = event.c_str() + prefix.size();
    // The library has negative numbers of its own for calls that an architecture lacks.
    return {std::max(-1, seccomp_syscall_resolve_name_arch(SCMP_ARCH_X86_64, name)),
            std::max(-1, seccomp_syscall_resolve_name_arch(SCMP_ARCH_X86, name))};
}

}  // namespace Engine
