// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventName.h"

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

bool IsLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

}  // namespace

bool IsPlain(std::string_view name)
{
    return !name.empty() && IsLetter(name.front()) &&
           std::all_of(name.begin(), name.end(), [](char c) { return IsLetter(c) || IsDigit(c); });
}

std::string KernelAlias(std::string_view event)
{
    for (const std::string_view prefix : {"sys_enter_", "sys_exit_"}) {
        if (!event.starts_with(prefix)) {
            continue;
        }
        const std::string_view call = event.substr(prefix.size());
        const auto* found =
            std::find_if(aliases.begin(), aliases.end(), [call](const Alias& alias) { return alias.first == call; });
        if (found != aliases.end()) {
            return std::string{prefix}.append(found->second);
        }
    }
    return {};
}

}  // namespace Engine::EventName
