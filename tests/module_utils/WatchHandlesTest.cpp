// SPDX-License-Identifier: Apache-2.0
#include "WatchHandles.h"

#include "FtraceUtils.h"
#include "tests/support/AgentFixture.h"

namespace {

using testing::ElementsAre;
using namespace Engine::FtraceUtils;

class WatchHandlesTest : public Support::AgentFixture {
protected:
    WatchHandlesTest() { host.AddFakes(); }

    Framework::Task owner{"owner", "", Framework::TaskCondition::EventLoop, 16};
};

TEST_F(WatchHandlesTest, ARefusedEventStaysInTheListAndSendsNothingWhenItGoes)
{
    host.refusedEvent = "b";
    std::list<FtraceWatchHandle> handles;
    RegisterFtraceEvents(&owner, handles, {{"s", "a"}, {"s", "b"}, {"s", "c"}});
    std::vector<bool> valid;
    for (const FtraceWatchHandle& handle : handles) {
        valid.push_back(handle.Valid());
    }
    EXPECT_THAT(valid, ElementsAre(true, false, true));
    handles.clear();
    EXPECT_THAT(host.TakeJournal(), ElementsAre("s:a", "s:b", "s:c", "-s:a", "-s:c"));
}

TEST_F(WatchHandlesTest, AResetUnsubscribesOnceAndOnlyTheConstructorMakesAHandleValid)
{
    {
        FtraceWatchHandle handle(&owner, "s", "a");
        handle.Reset();
        handle.Reset();
        EXPECT_TRUE(handle.Watch());
        EXPECT_FALSE(handle.Valid());
        const WatchMountHandle mount(&owner, "/m");
        const WatchFileHandle file(&owner, "/f");
        EXPECT_TRUE(mount.Valid() && file.Valid());
    }
    EXPECT_THAT(host.TakeJournal(), ElementsAre("s:a", "-s:a", "s:a", "/m 8 1073741824 mount notifyOnly keepOrder",
                                                "/f 8 notifyOnly keepOrder", "-/f", "-/m"));
}

TEST_F(WatchHandlesTest, AConsumerIsRegisteredWhileItsHandleIsValidAndItsProducerMayGo)
{
    Framework::Module module("consumers");
    EXPECT_FALSE(MessageConsumerHandle(&module, "absent", 7, "me", &owner).Valid());
    {
        const MessageConsumerHandle first(&module, "audit_task", 7, "me", &owner);
        EXPECT_TRUE(first.Valid());
        EXPECT_FALSE(MessageConsumerHandle(&module, "audit_task", 7, "me", &owner).Valid()) << "the name is taken";
    }
    MessageConsumerHandle again(&module, "audit_task", 7, "me", &owner);
    EXPECT_TRUE(again.Valid()) << "the name is free again";
    host.agent.Stop();
    again.Reset();
    EXPECT_FALSE(again.Valid());
}

TEST(NormaliseDeviceTest, KeepsTheLowEightBitsOfMajorAndMinor)
{
    EXPECT_EQ(NormaliseDevice(0x00800001U), 0x801U);
    EXPECT_EQ(NormaliseDevice(0xFFF001FFU), 0xFFFFU);
}

}  // namespace
