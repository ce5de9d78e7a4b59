// SPDX-License-Identifier: Apache-2.0
#include "SyscallTables.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace Engine {
namespace {

// Made from the kernel's headers when the build is configured: {number, "name"} for each call, in the header's order.
constexpr SyscallEntry x8664Header[] = {
#include "X8664Calls.inc"
};
constexpr SyscallEntry i386Header[] = {
#include "I386Calls.inc"
};

constexpr bool IsX8664Call(const SyscallEntry& call)
{
    constexpr int userfaultfd = 323;
    constexpr int excluded[] = {317, 318, 321, 322};  // seccomp, getrandom, bpf, execveat
    return call.number <= userfaultfd && std::ranges::find(excluded, call.number) == std::end(excluded);
}

constexpr bool IsI386Call(const SyscallEntry& call)
{
    constexpr int userfaultfd = 374;
    constexpr int excluded[] = {353, 354, 355, 357, 358};  // renameat2, seccomp, getrandom, bpf, execveat
    const bool isSocketCall = call.number >= 359 && call.number <= 373;
    return call.number <= userfaultfd && !isSocketCall &&
           std::ranges::find(excluded, call.number) == std::end(excluded);
}

// The entries that `accept` lets in, sorted by `key`. Headers that give another number of them do not compile.
template <std::size_t count, std::size_t listed, class Accept, class Key>
consteval std::array<SyscallEntry, count> Select(const SyscallEntry (&header)[listed], Accept accept, Key key)
{
    std::array<SyscallEntry, count> calls{};
    if (std::ranges::count_if(header, accept) != count) {
        throw "the kernel's header lists other system calls than this program was written for";
    }
    std::ranges::copy_if(header, calls.begin(), accept);
    std::ranges::sort(calls, {}, key);
    return calls;
}

}  // namespace

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

const SyscallTable& X8664SyscallTable()
{
    static constexpr auto byNumber = Select<320>(x8664Header, IsX8664Call, &SyscallEntry::number);
    static constexpr auto byName = Select<320>(x8664Header, IsX8664Call, &SyscallEntry::name);
    static constexpr SyscallTable table{byNumber, byName};
    return table;
}

const SyscallTable& I386SyscallTable()
{
    static constexpr auto byNumber = Select<351>(i386Header, IsI386Call, &SyscallEntry::number);
    static constexpr auto byName = Select<351>(i386Header, IsI386Call, &SyscallEntry::name);
    static constexpr SyscallTable table{byNumber, byName};
    return table;
}

}  // namespace Engine
