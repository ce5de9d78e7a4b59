// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeUtil.h"

#include <bit>
#include <cstdint>
#include <ctime>
#include <string>

#include "SyscallTables.h"
#include "tests/support/MustRun.h"

namespace Engine {
namespace {

// FNV-1a over the lines "number name", by rising number. Looks each call up in both directions.
std::uint32_t Fingerprint(const SyscallTable& table)
{
    std::uint32_t hash = 2166136261;
    for (int number = -1; number <= 1000; ++number) {
        const std::string_view name = table.NameOf(number);
        if (name.empty()) {
            continue;
        }
        EXPECT_EQ(table.NumberOf(name), number) << name;
        for (const char letter : std::to_string(number) + " " + std::string{name} + "\n") {
            hash = (hash ^ static_cast<unsigned char>(letter)) * 16777619;
        }
    }
    return hash;
}

// Policies and alarms name calls by these lists: headers of another kernel must give the same.
TEST(ContainerEscapeUtilTest, SystemCallsAreWhatTheyWereWhateverHeadersTheBuildHas)
{
    EXPECT_EQ(Fingerprint(X8664SyscallTable()), 0x1b80aeffU);
    EXPECT_EQ(Fingerprint(I386SyscallTable()), 0x8c631817U);
    for (const char* name : {"", "zzz", "rea", "readd", "Read", "_sysctl", "getrandom"}) {
        EXPECT_EQ(X8664SyscallTable().NumberOf(name), -1) << name;
        EXPECT_EQ(I386SyscallTable().NumberOf(name), -1) << name;
    }
}

TEST(ContainerEscapeUtilTest, TheClockIsFoundInTheVdso)
{
    const void* vdso = GetVdso();
    CE_REQUIRE(vdso != nullptr, "the kernel mapped no vDSO");
    EXPECT_EQ(GetDynSym(vdso, "__vdso_clock_gettim"), nullptr) << "only a whole name is found";
    const auto clockGetTime = std::bit_cast<int (*)(clockid_t, timespec*)>(GetDynSym(vdso, "__vdso_clock_gettime"));
    ASSERT_NE(clockGetTime, nullptr);
    timespec before{};
    timespec now{};
    ASSERT_EQ(::clock_gettime(CLOCK_REALTIME, &before), 0);
    ASSERT_EQ(clockGetTime(CLOCK_REALTIME, &now), 0);
    EXPECT_GE(now.tv_sec, before.tv_sec);
}

}  // namespace
}  // namespace Engine
