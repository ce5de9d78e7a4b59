// SPDX-License-Identifier: Apache-2.0
#include "FtraceUtils.h"
#include "ModuleUtils.h"
#include "tests/support/AgentFixture.h"

namespace {

using testing::ElementsAre;
using namespace Engine::FtraceUtils;

struct ModuleUtilsTest : Support::AgentFixture {
    ModuleUtilsTest() { host.AddFakes(); }

    Framework::Task owner{"owner", "", Framework::TaskCondition::EventLoop, 16};
};

TEST_F(ModuleUtilsTest, OnlyTheConstructorMakesAHandleValidAndAValidOneUnsubscribesOnce)
{
    host.refusedEvent = "b";
    {
        std::list<FtraceWatchHandle> handles;
        RegisterFtraceEvents(&owner, handles, {{"s", "a"}, {"s", "b"}, {"s", "c"}});
        EXPECT_EQ(handles.size(), 3U) << "with the refused one";
        handles.front().Reset();
        EXPECT_TRUE(handles.front().Watch());
        EXPECT_TRUE(!handles.front().Valid() && handles.back().Valid());
        const WatchMountHandle mount(&owner, "/m");
        const WatchFileHandle file(&owner, "/f");
        EXPECT_TRUE(mount.Valid() && file.Valid());
    }
    EXPECT_THAT(host.TakeJournal(),
                ElementsAre("s:a", "s:b", "s:c", "-s:a", "s:a", "/m 8 1073741824 mount notifyOnly keepOrder",
                            "/f 8 notifyOnly keepOrder", "-/f", "-/m", "-s:c"));
}

TEST_F(ModuleUtilsTest, AConsumerIsRegisteredWhileItsHandleIsValidAndItsProducerMayGo)
{
    Framework::Module module("consumers");
    EXPECT_FALSE(MessageConsumerHandle(&module, "absent", 7, "me", &owner).Valid());
    MessageConsumerHandle handle(&module, "audit_task", 7, "me", &owner);
    EXPECT_TRUE(handle.Valid());
    EXPECT_FALSE(MessageConsumerHandle(&module, "audit_task", 7, "me", &owner).Valid()) << "the name is taken";
    handle.Reset();
    const MessageConsumerHandle again(&module, "audit_task", 7, "me", &owner);
    EXPECT_TRUE(again.Valid() && !handle.Valid()) << "the name is free again";
    host.agent.Stop();
}

TEST_F(ModuleUtilsTest, ReportsGoToTheirTaskWithTheirTextsUnchanged)
{
    EXPECT_TRUE(Engine::SendAlarmMessage("containerescape_0001", R"({"a":"\"é"})"));
    EXPECT_TRUE(Engine::SendDataMessage("77", ""));
    EXPECT_TRUE(Engine::SendUnrepairableException("x", R"(a"b\c)"));
    EXPECT_THAT(host.reports,
                ElementsAre(R"(data_comm_report_task 2 {"a":"\"é"})", "data_comm_report_task 77 ",
                            R"(cmd_comm_report_task feature_exception_1 {"name":"x", "exception":"a"b\c"})"));
    EXPECT_FALSE(Engine::SendMessage("absent", nullptr));
}

}  // namespace
