// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventName.h"

#include <seccomp.h>

#include <algorithm>
#include <array>
#include <utility>

namespace Engine::EventName {
namespace {

using Alias = std::pair<std::string_view, std::string_view>;

// Name in the system-call table, name in tracefs.
constexpr std::array<Alias, 6> aliases{{
    {"stat", "newstat"},
    {"fstat", "newfstat"},
    {"lstat", "newlstat"},
    {"uname", "newuname"},
    {"sendfile", "sendfile64"},
    {"umount2", "umount"},
}};

constexpr std::string_view entryPrefix = "sys_enter_";
constexpr std::string_view exitPrefix = "sys_exit_";
constexpr char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789";

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

}  // namespace

bool IsPlain(std::string_view name)
{
    return !name.empty() && !IsDigit(name.front()) && name.find_first_not_of(plain) == std::string_view::npos;
}

std::string KernelAlias(std::string_view event)
{
    for (const std::string_view prefix : {entryPrefix, exitPrefix}) {
        for (const auto& [call, kernelCall] : aliases) {
            if (event.starts_with(prefix) && event.substr(prefix.size()) == call) {
                return std::string{prefix}.append(kernelCall);
            }
        }
    }
    return {};
}

SyscallNumbers NumbersOfEntry(const std::string& event)
{
    if (!event.starts_with(entryPrefix)) {
        return {};
    }
    const char* const name = event.c_str() + entryPrefix.size();
    // The library has negative numbers of its own for calls that an architecture lacks.
    const auto number = [](unsigned int architecture, const char* call) {
        return std::max(-1, seccomp_syscall_resolve_name_arch(architecture, call));
    };
    constexpr int x32Bit = 0x40000000;  // __X32_SYSCALL_BIT (arch/x86/include/uapi/asm/unistd.h)
    const int x32 = number(SCMP_ARCH_X32, name);
    const bool isListing = std::string_view{name} == "getdents";
    return {number(SCMP_ARCH_X86_64, name), number(SCMP_ARCH_X86, name),
            isListing ? number(SCMP_ARCH_X86, "readdir") : -1, x32 < 0 ? -1 : x32 & ~x32Bit};
}

}  // namespace Engine::EventName
