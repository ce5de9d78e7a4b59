// SPDX-License-Identifier: Apache-2.0
#include "SyscallTables.h"

#include <algorithm>

namespace Engine {

int SyscallTable::NumberOf(std::string_view name) const
{
    const auto found = std::ranges::lower_bound(byName, name, {}, &SyscallEntry::name);
    return found != byName.end() && found->name == name ? found->number : -1;
}

std::string_view SyscallTable::NameOf(int number) const
{
    const auto found = std::ranges::lower_bound(byNumber, number, {}, &SyscallEntry::number);
    return found != byNumber.end() && found->number == number ? found->name : std::string_view{};
}

}  // namespace Engine
