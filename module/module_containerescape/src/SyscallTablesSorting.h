// SPDX-License-Identifier: Apache-2.0
// Compile-time helpers of the two table files: a list is written once, by number, and sorted by name by the compiler.
#pragma once

#include <algorithm>
#include <array>
#include <functional>

#include "SyscallTables.h"

namespace Engine {

template <std::size_t count>
constexpr std::array<SyscallEntry, count> SortedByName(std::array<SyscallEntry, count> entries)
{
    std::ranges::sort(entries, {}, &SyscallEntry::name);
    return entries;
}

// Strictly: an entry that stands there twice does not pass.
template <std::size_t count>
constexpr bool HasRisingNumbers(const std::array<SyscallEntry, count>& entries)
{
    return std::ranges::adjacent_find(entries, std::greater_equal{}, &SyscallEntry::number) == entries.end();
}

template <std::size_t count>
constexpr bool HasRisingNames(const std::array<SyscallEntry, count>& entries)
{
    return std::ranges::adjacent_find(entries, std::greater_equal{}, &SyscallEntry::name) == entries.end();
}

}  // namespace Engine
