// SPDX-License-Identifier: Apache-2.0
#include "DirtyCowSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DirtyCowSubmoduleTest : public Support::DetectorTest {
protected:
    // The detector's results for the calls, 1 for true.
    std::string Results(DirtyCowSubmodule& detector, int pid, const std::vector<std::string>& calls)
    {
        std::string results;
        for (const std::string& call : calls) {
            results += detector.HandleEvent(Entry(pid, call).Message()) ? '1' : '0';
            world.now += 3;
        }
        return results;
    }

    const std::vector<std::string> attack{"bind", "madvise", "ptrace", "accept"};
};

TEST_F(DirtyCowSubmoduleTest, SequenceWaitsForEachCallInItsTurn)
{
    auto& detector = Attach<DirtyCowSubmodule>(*task, collector, false);
    const struct {
        std::vector<std::string> calls;
        const char* results;
        int alarms;
    } rows[] = {
        {attack, "1110", 1},
        {{"bind", "ptrace", "madvise", "ptrace", "accept", "read", "accept"}, "1111000", 1},
        {{"read", "bind", "bind", "madvise", "write", "ptrace", "bind", "accept"}, "11111110", 1},
        {{"madvise", "ptrace", "accept", "bind"}, "1111", 0},
        {{"bind", "madvise", "accept", "ptrace"}, "1111", 0},
        {{"bind", "madvise", "ptrace", "accept4", "connect"}, "11111", 0},
    };
    int pid = shell + 1000;
    for (const auto& row : rows) {
        EXPECT_EQ(Results(detector, ++pid, row.calls), row.results) << row.calls[0];
        EXPECT_EQ(AlarmedPids(), std::vector<int>(static_cast<std::size_t>(row.alarms), pid)) << row.calls[0];
    }
}

TEST_F(DirtyCowSubmoduleTest, SuppressedDetectorFollowsButDoesNotAlarm)
{
    auto& detector = Attach<DirtyCowSubmodule>(*task, collector, true);
    EXPECT_EQ(Results(detector, shell, attack), "1110");
    EXPECT_THAT(AlarmedPids(), IsEmpty());
}

TEST_F(DirtyCowSubmoduleTest, ProcessStartsAgainAfterItsExitAndAfterDeInit)
{
    auto& detector = Attach<DirtyCowSubmodule>(*task, collector, false);
    EXPECT_EQ(Results(detector, shell, attack), "1110");
    EXPECT_EQ(Results(detector, other, {"bind"}), "1");
    Exit(detector, shell);
    EXPECT_EQ(Results(detector, shell, attack), "1110");
    EXPECT_THAT(AlarmedPids(), ElementsAre(shell, shell));
    EXPECT_EQ(Results(detector, other, {"madvise", "ptrace"}), "11");
    detector.DeInit();
    EXPECT_EQ(Results(detector, other, {"accept"}), "1");
}

TEST_F(DirtyCowSubmoduleTest, AlarmOfAProcessThatIsGoneNamesItsExecutable)
{
    Support::GoneSystem gone;
    gone.Put(unknown, {{}, "c1", "/usr/bin/exploit", {}});
    auto& detector = Attach<DirtyCowSubmodule>(*task, collector, false);
    Results(detector, unknown, attack);
    const std::vector<Json::Value> alarms = Alarms();
    ASSERT_EQ(alarms.size(), 1U);
    Support::ExpectClass(alarms[0], {"containerescape_0003", "DirtyCow attack", 4, 4, 2000, 2042, 60});
    EXPECT_EQ(alarms[0]["process_info"][0]["process_name"], "/usr/bin/exploit");
    EXPECT_EQ(alarms[0]["forensic_info"]["sys_call"], "accept");
    EXPECT_FALSE(alarms[0].isMember("file_info"));
}

TEST_F(DirtyCowSubmoduleTest, SubscribesToATextThatNamesNoEvent)
{
    auto& detector = Attach<DirtyCowSubmodule>(*task, collector, false);
    static_cast<Submodule&>(detector).Init();
    EXPECT_THAT(TraceWatches(), ElementsAre("syscalls:sys_enter_always,exit -S madvise -S ptrace"));
    EXPECT_EQ(detector.HandleFileNotifyMsg(nullptr), 0);
}

}  // namespace
}  // namespace Engine
