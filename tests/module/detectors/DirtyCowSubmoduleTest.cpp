// SPDX-License-Identifier: Apache-2.0
#include "DirtyCowSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DirtyCowSubmoduleTest : public Support::DetectorTest {
protected:
    // The detector's results for the calls, 1 for true: here, no alarm.
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
        std::size_t alarms;
    } rows[] = {
        {{"bind", "ptrace", "madvise", "ptrace", "accept", "read", "accept"}, "1111000", 1},
        {{"read", "bind", "bind", "madvise", "write", "ptrace", "bind", "accept"}, "11111110", 1},
        {{"bind", "madvise", "accept", "ptrace"}, "1111", 0},
        {{"bind", "madvise", "ptrace", "accept4", "connect"}, "11111", 0},
    };
    int pid = shell + 1000;
    for (const auto& row : rows) {
        EXPECT_EQ(Results(detector, ++pid, row.calls), row.results);
        EXPECT_EQ(AlarmedPids(), std::vector<int>(row.alarms, pid)) << row.results;
    }
}

TEST_F(DirtyCowSubmoduleTest, ProcessStartsAgainAfterItsExitAndAfterDeInit)
{
    auto& detector = Attach<DirtyCowSubmodule>(*task, collector, false);
    Results(detector, shell, attack);
    Exit(detector, shell);
    Results(detector, shell, attack);
    EXPECT_THAT(AlarmedPids(), ElementsAre(shell, shell));
    Results(detector, other, {"bind", "madvise", "ptrace"});
    detector.DeInit();
    EXPECT_EQ(Results(detector, other, {"accept"}), "1");
}

TEST_F(DirtyCowSubmoduleTest, SuppressedDetectorFollowsATextThatNamesNoEvent)
{
    auto& detector = Attach<DirtyCowSubmodule>(*task, collector, true);
    static_cast<Submodule&>(detector).Init();
    EXPECT_THAT(TraceWatches(), ElementsAre("syscalls:sys_enter_always,exit -S madvise -S ptrace"));
    EXPECT_EQ(Results(detector, shell, attack), "1110");
    EXPECT_THAT(AlarmedPids(), IsEmpty());
}

}  // namespace
}  // namespace Engine
