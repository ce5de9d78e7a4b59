// SPDX-License-Identifier: Apache-2.0
#include "HighRiskSyscallSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
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

TEST_F(HighRiskSyscallSubmoduleTest, AlarmsForListedCallsOnly)
{
    Configure({"unshare", "open_by_handle_at"});
    EXPECT_FALSE(Handle(shell, "mount"));
    EXPECT_FALSE(Handle(shell, "unshar"));
    EXPECT_THAT(AlarmedPids(), IsEmpty());

    EXPECT_TRUE(Handle(shell, "unshare"));
    const std::vector<Json::Value> alarms = Alarms();
    ASSERT_EQ(alarms.size(), 1U);
    Support::ExpectClass(alarms[0], {"containerescape_0001", "High-Risk System Invocation", 6, 4, 3000, 3016, 80});
    EXPECT_EQ(alarms[0]["forensic_info"]["sys_call"], "unshare");
    EXPECT_FALSE(alarms[0].isMember("file_info"));
}

TEST_F(HighRiskSyscallSubmoduleTest, OneAlarmAnHourForEachCallWhoeverMakesIt)
{
    Configure({"unshare", "setns"});
    const struct {
        int pid;
        const char* call;
        int secondsLater;
        bool alarms;
    } rows[] = {
        {shell, "unshare", 0, true},      {other, "unshare", 3, false}, {shell, "setns", 0, true},
        {shell, "unshare", 3596, false},  {other, "unshare", 1, true},  {shell, "unshare", 3599, false},
        {shell, "unshare", -7198, false}, {shell, "unshare", -1, true},
    };
    for (const auto& row : rows) {
        world.now += row.secondsLater;
        EXPECT_TRUE(Handle(row.pid, row.call));
        EXPECT_EQ(AlarmedPids().size(), row.alarms ? 1U : 0U) << row.call << " " << row.secondsLater;
    }
}

TEST_F(HighRiskSyscallSubmoduleTest, HourOutlastsANewPolicy)
{
    Configure({"unshare"});
    Handle(shell, "unshare");
    EXPECT_THAT(AlarmedPids(), ElementsAre(shell));
    Configure({});
    world.now += 10;
    EXPECT_FALSE(Handle(shell, "unshare"));
    Configure({"unshare", "mount"});
    EXPECT_TRUE(Handle(shell, "unshare"));
    EXPECT_THAT(AlarmedPids(), IsEmpty());
}

TEST_F(HighRiskSyscallSubmoduleTest, SubscribesToTheCallsThatHaveAnX8664Number)
{
    Configure({"unshare", "waitpid", "setns"});
    static_cast<Submodule&>(*detector).Init();
    EXPECT_THAT(TraceWatches(), UnorderedElementsAre("syscalls:sys_enter_unshare", "syscalls:sys_enter_setns"));
    EXPECT_FALSE(Handle(shell, "waitpid"));

    Configure({});
    detector->DeInit();
    TraceWatches();
    static_cast<Submodule&>(*detector).Init();
    EXPECT_THAT(TraceWatches(), IsEmpty());
}

}  // namespace
}  // namespace Engine
