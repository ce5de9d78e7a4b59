// SPDX-License-Identifier: Apache-2.0
#include <ctime>

#include "ContainerEscapeUtil.h"
#include "support/MustRun.h"

namespace Engine {
namespace {

TEST(ElfImageTest, ReadsTheClockThroughTheVdso)
{
    const void* vdso = GetVdso();
    CE_REQUIRE(vdso != nullptr, "the kernel mapped no vDSO");
    EXPECT_EQ(GetDynSym(vdso, "__vdso_clock_gettim"), nullptr) << "only a whole name is found";
    const void* address = GetDynSym(vdso, "__vdso_clock_gettime");
    ASSERT_NE(address, nullptr);

    using ClockGetTime = int (*)(clockid_t, timespec*);
    const auto clockGetTime = reinterpret_cast<ClockGetTime>(reinterpret_cast<std::uintptr_t>(address));
    timespec before{};
    timespec now{};
    ASSERT_EQ(::clock_gettime(CLOCK_MONOTONIC, &before), 0);
    ASSERT_EQ(clockGetTime(CLOCK_MONOTONIC, &now), 0);
    EXPECT_TRUE(now.tv_sec > before.tv_sec || (now.tv_sec == before.tv_sec && now.tv_nsec >= before.tv_nsec));
}

}  // namespace
}  // namespace Engine
