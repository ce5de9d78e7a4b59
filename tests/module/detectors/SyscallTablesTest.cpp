// SPDX-License-Identifier: Apache-2.0
// The tables against the kernel's own headers, as they lie on the machine that builds.
#include "SyscallTables.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace Engine {
namespace {

using Calls = std::vector<std::pair<int, std::string>>;

const Calls x8664Header{
#include "X8664Calls.inc"
};
const Calls i386Header{
#include "I386Calls.inc"
};

// What the table must hold: the header's calls up to `last`, without those left out and without leading underscores.
std::map<int, std::string> Expected(const Calls& header, int last, const std::set<int>& leftOut)
{
    std::map<int, std::string> expected;
    for (const auto& [number, name] : header) {
        if (number <= last && !leftOut.contains(number)) {
            expected[number] = name.substr(name.find_first_not_of('_'));
        }
    }
    return expected;
}

void ExpectTable(const SyscallTable& table, const std::map<int, std::string>& expected, std::size_t size)
{
    ASSERT_EQ(expected.size(), size);
    EXPECT_EQ(table.Size(), size);
    for (int number = -1; number <= 1000; ++number) {
        const auto call = expected.find(number);
        EXPECT_EQ(table.NameOf(number), call == expected.end() ? "" : call->second) << number;
    }
    for (const auto& [number, name] : expected) {
        EXPECT_EQ(table.NumberOf(name), number) << name;
    }
}

TEST(SyscallTablesTest, X8664IsTheKernelsListUpToUserfaultfd)
{
    ExpectTable(X8664SyscallTable(), Expected(x8664Header, 323, {317, 318, 321, 322}), 320);
}

TEST(SyscallTablesTest, I386IsTheKernelsListUpToUserfaultfd)
{
    std::set<int> leftOut{353, 354, 355, 357, 358};
    for (int socketCall = 359; socketCall <= 373; ++socketCall) {
        leftOut.insert(socketCall);
    }
    ExpectTable(I386SyscallTable(), Expected(i386Header, 374, leftOut), 351);
}

TEST(SyscallTablesTest, NamesThatNobodyHasAreNotFound)
{
    for (const char* name : {"", "zzz", "rea", "readd", "Read", "_sysctl", "getrandom"}) {
        EXPECT_EQ(X8664SyscallTable().NumberOf(name), -1) << name;
        EXPECT_EQ(I386SyscallTable().NumberOf(name), -1) << name;
    }
}

}  // namespace
}  // namespace Engine
