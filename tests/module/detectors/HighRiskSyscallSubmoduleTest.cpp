// SPDX-License-Identifier: Apache-2.0
#include "HighRiskSyscallSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

using testing::UnorderedElementsAre;

class HighRiskSyscallSubmoduleTest : public Support::DetectorTest {
protected:
    void SetUp() override
    {
        DetectorTest::SetUp();
        detector = &Attach<HighRiskSyscallSubmodule>(*task, collector, std::unordered_set<int>{});
    }

    void Configure(std::unordered_set<std::string> calls) { detector->Reconfigure({{}, std::move(calls)}); }

    bool Handle(int pid, const std::string& call) { return detector->HandleEvent(Entry(pid, call).Message()); }

    HighRiskSyscallSubmodule* detector = nullptr;
};

TEST_F(HighRiskSyscallSubmoduleTest, OneAlarmAnHourForEachListedCallWhoeverMakesIt)
{
    const struct {
        int pid;
        const char* call;
        int secondsLater;
        bool isListed;
        std::size_t alarms;
    } rows[] = {
        {shell, "unshare", 0, true, 1},    {other, "unshare", 3, true, 0},     {shell, "setns", 0, true, 1},
        {shell, "unshar", 0, false, 0},    {shell, "unshare", 3596, true, 0},  {other, "unshare", 1, true, 1},
        {shell, "unshare", 3599, true, 0}, {shell, "unshare", -7198, true, 0}, {shell, "unshare", -1, true, 1},
    };
    for (const auto& row : rows) {
        Configure({"unshare", "setns"});  // the hour outlasts a policy
        world.now += row.secondsLater;
        EXPECT_EQ(Handle(row.pid, row.call), row.isListed);
        EXPECT_EQ(AlarmedPids().size(), row.alarms) << row.call << " " << row.secondsLater;
    }
}

TEST_F(HighRiskSyscallSubmoduleTest, FollowsThePolicysCallsThatHaveAnX8664Number)
{
    Configure({"unshare", "waitpid", "setns"});
    static_cast<Submodule&>(*detector).Init();
    EXPECT_THAT(TraceWatches(), UnorderedElementsAre("syscalls:sys_enter_unshare", "syscalls:sys_enter_setns"));
    EXPECT_FALSE(Handle(shell, "waitpid"));
    Configure({});
    EXPECT_FALSE(Handle(shell, "unshare"));
    detector->DeInit();
    TraceWatches();
    static_cast<Submodule&>(*detector).Init();
    EXPECT_THAT(TraceWatches(), testing::IsEmpty());
}

}  // namespace
}  // namespace Engine
