// SPDX-License-Identifier: Apache-2.0
#include "BruteforceSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class BruteforceSubmoduleTest : public Support::DetectorTest {
protected:
    BruteforceSubmodule& AttachBruteforce(long windowSeconds, unsigned short maxCount)
    {
        return Attach<BruteforceSubmodule>(*task, collector, std::chrono::duration<long>{windowSeconds}, maxCount);
    }

    // How many of `count` calls, one a millisecond, are within the limit.
    int Within(BruteforceSubmodule& detector, int pid, int count, milliseconds start)
    {
        int within = 0;
        for (int call = 0; call < count; ++call) {
            const std::chrono::steady_clock::time_point now{start + milliseconds{call}};
            within += detector.HandleOpenAt(1, now, "/bin/guess", pid) ? 1 : 0;
        }
        return within;
    }
};

TEST_F(BruteforceSubmoduleTest, CountsEachProcessByItselfAndOutlivesItsExitButNotDeInit)
{
    BruteforceSubmodule& detector = AttachBruteforce(1, 300);
    EXPECT_EQ(Within(detector, shell, 300, milliseconds{0}), 300);
    EXPECT_EQ(Within(detector, other, 300, milliseconds{0}), 300);
    EXPECT_THAT(AlarmedPids(), IsEmpty());

    Exit(detector, shell);
    EXPECT_EQ(Within(detector, shell, 1, milliseconds{300}), 0);
    EXPECT_THAT(AlarmedPids(), ElementsAre(shell));
    detector.DeInit();
    EXPECT_EQ(Within(detector, shell, 300, milliseconds{301}), 300);
}

// Rounds that give idle counters' memory back come in between; they must leave this one's calls alone.
TEST_F(BruteforceSubmoduleTest, LongBurstIsCountedToTheEndAndNothingElseCounts)
{
    BruteforceSubmodule& detector = AttachBruteforce(3600, 9000);
    logs.SetLevel(Poco::Message::PRIO_INFORMATION);
    int within = 0;
    for (int call = 0; call < 9010; ++call) {
        EXPECT_TRUE(detector.HandleEvent(Entry(shell, call % 2 == 0 ? "open" : "getdents64").Message()));
        within += detector.HandleEvent(Entry(shell, "open_by_handle_at").Message()) ? 1 : 0;
    }
    EXPECT_EQ(within, 9000);
}

}  // namespace
}  // namespace Engine
