// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventName.h"

#include <seccomp.h>

#include <algorithm>
#include <array>
#include <set>
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

// x86-64's call, and i386's that does the same under a name which no rule gives.
constexpr std::array<Alias, 6> olderCalls{{
    {"getdents", "readdir"},
    {"umount2", "umount"},
    {"mmap", "mmap2"},
    {"select", "_newselect"},
    {"lseek", "_llseek"},
    {"newfstatat", "fstatat64"},
}};

// Endings that i386 gives to its wider variants of a call: user ids, file sizes, times.
constexpr std::array<const char*, 3> wider{"32", "64", "_time64"};

// What functions of older and narrower variants are called.
constexpr std::array<const char*, 5> functionBeginnings{"", "old", "old_", "ia32_", "new"};
constexpr std::array<const char*, 6> functionEndings{"", "16", "32", "64", "_time32", "_pgoff"};

constexpr std::string_view entryPrefix = "sys_enter_";
constexpr std::string_view exitPrefix = "sys_exit_";
constexpr char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789";

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::string CallOf(const std::string& event)
{
    return event.starts_with(entryPrefix) ? event.substr(entryPrefix.size()) : std::string{};
}

// The library has negative numbers of its own for calls that an architecture lacks.
int Number(unsigned int architecture, const std::string& call)
{
    return std::max(-1, seccomp_syscall_resolve_name_arch(architecture, call.c_str()));
}

bool IsCall(const std::string& name)
{
    return Number(SCMP_ARCH_X86_64, name) >= 0;
}

std::vector<std::string> NamesOnI386(const std::string& call)
{
    std::vector<std::string> names{call};
    for (const char* const ending : wider) {
        names.push_back(call + ending);
    }
    for (const auto& [name, older] : olderCalls) {
        if (name == call) {
            names.emplace_back(older);
        }
    }
    std::erase_if(names, [&call](const std::string& name) { return name != call && IsCall(name); });
    return names;
}

}  // namespace

bool IsPlain(std::string_view name)
{
    return !name.empty() && !IsDigit(name.front()) && name.find_first_not_of(plain) == std::string_view::npos;
}

bool IsAuditRule(std::string_view event)
{
    return event.starts_with(entryPrefix) && event.substr(entryPrefix.size()).starts_with("always,exit ");
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
    const std::string name = CallOf(event);
    constexpr int x32Bit = 0x40000000;  // __X32_SYSCALL_BIT (arch/x86/include/uapi/asm/unistd.h)
    SyscallNumbers numbers{Number(SCMP_ARCH_X86_64, name), Number(SCMP_ARCH_X32, name), {}};
    numbers.x32 = numbers.x32 < 0 ? -1 : numbers.x32 & ~x32Bit;
    for (const std::string& same : NamesOnI386(name)) {
        if (const int number = Number(SCMP_ARCH_X86, same); number >= 0) {
            numbers.compat.push_back(number);
        }
    }
    return numbers;
}

std::vector<std::string> FunctionsOf(const std::string& event, const std::string& kernelEvent)
{
    const std::string call = CallOf(event);
    std::set<std::string> stems{call, CallOf(kernelEvent)};
    for (const std::string& name : NamesOnI386(call)) {
        stems.insert(name);
    }
    std::set<std::string> names;
    for (const std::string& stem : stems) {
        for (const char* const beginning : functionBeginnings) {
            for (const char* const ending : functionEndings) {
                names.insert(beginning + stem + ending);
            }
        }
    }
    std::erase_if(names, [&call](const std::string& name) { return name != call && IsCall(name); });
    return {names.begin(), names.end()};
}

}  // namespace Engine::EventName
