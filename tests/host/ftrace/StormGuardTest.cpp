// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/StormGuard.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "host/ftrace/EventKind.h"

namespace Engine {
namespace {

constexpr std::uint64_t loud = 1;
constexpr std::uint64_t quiet = 2;

// A subscriber that needs 50 us for an event: 100 ms are worth less than the least room.
class StormGuardTest : public testing::Test {
protected:
    StormGuardTest() { backlog.Handled(1, std::chrono::microseconds{200}); }  // a quarter of it counts

    // Offers events and sends those that are admitted at once. Returns how many were.
    std::uint64_t Offer(std::uint64_t origin, const EventKind& kind, std::uint64_t events)
    {
        std::uint64_t admitted = 0;
        for (std::uint64_t i = 0; i < events; ++i) {
            guard.Update(backlog);
            if (guard.Admit(origin, kind)) {
                backlog.Sent(1);
                ++admitted;
            }
        }
        return admitted;
    }

    const EventKind open{"syscalls", "sys_enter_open_by_handle_at", {}};
    const EventKind mount{"syscalls", "sys_enter_mount", {}};
    Backlog backlog;
    StormGuard guard;
};

TEST_F(StormGuardTest, BoundsAStormAndLetsTheOthersThroughUntilTheSubscriberHasCaughtUp)
{
    const std::uint64_t admitted = Offer(loud, open, 1000000);
    EXPECT_GE(admitted, 301U) << "too few for the detector that counts calls";
    EXPECT_LE(admitted, StormGuard::leastRoom);
    EXPECT_EQ(Offer(quiet, open, 10), 10U);
    EXPECT_EQ(Offer(loud, mount, 10), 10U) << "a flood of one call hid another of the same container";
    backlog.Gone(admitted + 20);
    EXPECT_EQ(Offer(loud, open, 400), 400U);
}

TEST_F(StormGuardTest, BoundsAContainerThatFloodsWithManyKinds)
{
    const std::vector<EventKind> kinds(300, open);
    std::uint64_t admitted = 0;
    for (const EventKind& kind : kinds) {
        admitted += Offer(loud, kind, 10000);
    }
    EXPECT_LE(admitted, StormGuard::leastRoom * 2);
}

}  // namespace
}  // namespace Engine
