// SPDX-License-Identifier: Apache-2.0
#include "ShockerSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

class ShockerSubmoduleTest : public Support::DetectorTest {
protected:
    // Whether the calls, one after the other, raised an alarm. The alarm filter's window passes after each.
    bool Alarms(int pid, const std::vector<std::string>& calls)
    {
        for (const std::string& call : calls) {
            task->Receive(Entry(pid, call).Message());
            world.now += 3;
        }
        return AlarmedPids() == std::vector<int>{pid};
    }

    const std::vector<std::string> attack{"getdents", "getdents", "open_by_handle_at"};
};

TEST_F(ShockerSubmoduleTest, AlarmsWhenAListingOfAKnownProcessIsFollowedByAnOpeningByHandle)
{
    Attach<ShockerSubmodule>(*task, collector);
    const std::string open = "open_by_handle_at";
    const struct {
        std::vector<std::string> calls;
        bool alarms;
    } rows[] = {
        {{open, "getdents64", open}, true},  // whichever call comes first, it only makes the process known
        {{"unshare", "getdents64", "mount", "getdents", open}, true},
        {{"getdents", open}, false},
        {{"getdents64", open, open}, false},
        {{"getdents", "getdents64", "open_by_handle", "open"}, false},
    };
    int pid = shell + 1000;
    for (const auto& row : rows) {
        Know(++pid);
        EXPECT_EQ(Alarms(pid, row.calls), row.alarms) << testing::PrintToString(row.calls);
    }
}

TEST_F(ShockerSubmoduleTest, AlarmsOnceUntilTheProcessHasGone)
{
    auto& shocker = Attach<ShockerSubmodule>(*task, collector);
    EXPECT_TRUE(Alarms(shell, attack));
    EXPECT_FALSE(Alarms(shell, attack));
    Exit(shocker, shell);
    EXPECT_FALSE(Alarms(shell, {"getdents", "open_by_handle_at"}));
    EXPECT_TRUE(Alarms(shell, {"getdents", "open_by_handle_at"}));
    shocker.DeInit();
    EXPECT_TRUE(Alarms(shell, attack));
    EXPECT_FALSE(Alarms(other, {"getdents", "open_by_handle_at"})) << "not its own listing";
}

TEST_F(ShockerSubmoduleTest, PathIsMountedBelowADestinationOrInAnUnknownContainer)
{
    auto& shocker = Attach<ShockerSubmodule>(*task, collector);
    ContainerInfo container;
    container.id = "c1";
    container.mountDestinations = {"/data", "/srv/"};
    collector->Put(container);
    EXPECT_TRUE(shocker.IsMounted("c1", "/data/x"));
    EXPECT_TRUE(shocker.IsMounted("c1", "/srv/x"));
    EXPECT_FALSE(shocker.IsMounted("c1", "/database"));
    EXPECT_TRUE(shocker.IsMounted("c2", "/database"));
}

}  // namespace
}  // namespace Engine
