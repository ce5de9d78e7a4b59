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

TEST_F(BruteforceSubmoduleTest, CountsEachProcessByItselfInASlidingWindow)
{
    BruteforceSubmodule& detector = AttachBruteforce(1, 300);
    EXPECT_EQ(Within(detector, shell, 300, milliseconds{0}), 300);
    EXPECT_EQ(Within(detector, other, 300, milliseconds{0}), 300);
    EXPECT_THAT(AlarmedPids(), IsEmpty());

    EXPECT_EQ(Within(detector, shell, 1, milliseconds{300}), 0);
    EXPECT_THAT(AlarmedPids(), ElementsAre(shell));
    EXPECT_EQ(Within(detector, shell, 1, milliseconds{1301}), 1) << "all earlier ones have left the window";
}

TEST_F(BruteforceSubmoduleTest, CountOutlivesTheProcessButNotDeInit)
{
    BruteforceSubmodule& detector = AttachBruteforce(1, 2);
    Within(detector, shell, 2, milliseconds{0});
    Exit(detector, shell);
    EXPECT_EQ(Within(detector, shell, 1, milliseconds{2}), 0);
    detector.DeInit();
    EXPECT_EQ(Within(detector, shell, 2, milliseconds{3}), 2);
}

TEST_F(BruteforceSubmoduleTest, OnlyOpeningByHandleCounts)
{
    BruteforceSubmodule& detector = AttachBruteforce(3600, 2);
    for (const char* call : {"open_by_handle_at", "getdents64", "open", "open_by_handle_at", "read"}) {
        EXPECT_TRUE(detector.HandleEvent(Entry(shell, call).Message())) << call;
    }
    EXPECT_FALSE(detector.HandleEvent(Entry(shell, "open_by_handle_at").Message()));
    EXPECT_TRUE(detector.HandleEvent(Entry(shell, "read").Message()));
}

// Rounds that give idle counters' memory back come in between; they must leave this one's calls alone.
TEST_F(BruteforceSubmoduleTest, LongBurstIsCountedToTheEnd)
{
    BruteforceSubmodule& detector = AttachBruteforce(3600, 9000);
    logs.SetLevel(Poco::Message::PRIO_INFORMATION);
    const Support::TraceEvent event = Entry(shell, "open_by_handle_at");
    int within = 0;
    for (int call = 0; call < 9010; ++call) {
        within += detector.HandleEvent(event.Message()) ? 1 : 0;
    }
    EXPECT_EQ(within, 9000);
}

TEST_F(BruteforceSubmoduleTest, AlarmOfAProcessThatIsGoneNamesItsExecutable)
{
    Support::GoneSystem gone;
    gone.Put(unknown, {{}, "c1", "/usr/bin/guess", {}});
    BruteforceSubmodule& detector = AttachBruteforce(3600, 1);
    EXPECT_TRUE(detector.HandleEvent(Entry(unknown, "open_by_handle_at").Message()));
    EXPECT_FALSE(detector.HandleEvent(Entry(unknown, "open_by_handle_at").Message()));
    const std::vector<Json::Value> alarms = Alarms();
    ASSERT_EQ(alarms.size(), 1U);
    Support::ExpectClass(alarms[0], {"containerescape_0005", "Bruteforce syscall attack", 4, 4, 2000, 2042, 60});
    EXPECT_EQ(alarms[0]["process_info"][0]["process_name"], "/usr/bin/guess");
    EXPECT_EQ(alarms[0]["forensic_info"]["sys_call"], "open_by_handle_at");
    EXPECT_FALSE(alarms[0].isMember("file_info"));
}

TEST_F(BruteforceSubmoduleTest, SubscribesToOneCall)
{
    static_cast<Submodule&>(AttachBruteforce(1, 300)).Init();
    EXPECT_THAT(TraceWatches(), ElementsAre("syscalls:sys_enter_open_by_handle_at"));
}

}  // namespace
}  // namespace Engine
