// SPDX-License-Identifier: Apache-2.0
#include "WatchHandles.h"

#include "FtraceUtils.h"
#include "tests/support/AgentFixture.h"

namespace {

using Poco::Message;
using testing::ElementsAre;
using namespace Engine::FtraceUtils;

class WatchHandlesTest : public Support::AgentFixture {
protected:
    void SetUp() override { AddHostTasks(); }

    Framework::Task owner{"owner", "", Framework::TaskCondition::EventLoop, 16};
};

TEST_F(WatchHandlesTest, ARefusedEventStaysInTheListAndSendsNothingWhenItGoes)
{
    trace->refused = {"b"};
    std::list<FtraceWatchHandle> handles;
    RegisterFtraceEvents(&owner, handles, {{"s", "a"}, {"s", "b"}, {"s", "c"}});
    std::vector<bool> valid;
    for (const FtraceWatchHandle& handle : handles) {
        valid.push_back(handle.Valid());
    }
    EXPECT_THAT(valid, ElementsAre(true, false, true));
    EXPECT_THAT(logs.Texts(Message::PRIO_WARNING), ElementsAre("Watching ftrace s:b failed. Skipping"));
    EXPECT_THAT(TraceWatches(), ElementsAre("s:a", "s:b", "s:c"));

    handles.clear();
    EXPECT_THAT(TraceWatches(), ElementsAre("-s:a", "-s:c"));
}

TEST_F(WatchHandlesTest, AResetWithdrawsOnce)
{
    {
        FtraceWatchHandle handle(&owner, "s", "a");
        handle.Reset();
        EXPECT_FALSE(handle.Valid());
        handle.Reset();
        EXPECT_TRUE(handle.Watch());
        EXPECT_FALSE(handle.Valid()) << "only the constructor makes a handle valid";
    }
    EXPECT_THAT(TraceWatches(), ElementsAre("s:a", "-s:a", "s:a"));
}

TEST_F(WatchHandlesTest, AMountIsWatchedWithItsDirectoriesAFileWithout)
{
    {
        const WatchMountHandle mount(&owner, "/m");
        const WatchFileHandle file(&owner, "/f");
        EXPECT_TRUE(mount.Valid() && file.Valid());
    }
    const auto watches = Taken(*files, files->watches);
    ASSERT_EQ(watches.size(), 4U);
    EXPECT_THAT(watches[0].eventMasks, ElementsAre(0x8U, 0x40000000U));
    EXPECT_THAT(watches[1].eventMasks, ElementsAre(0x8U));
    EXPECT_TRUE(watches[0].options.mount && !watches[1].options.mount);
    for (const int placed : {0, 1}) {
        const _FileNotifyOpt& options = watches[static_cast<std::size_t>(placed)].options;
        EXPECT_TRUE(options.notifyOnly && options.keepOrder && !options.permission) << placed;
    }
    EXPECT_TRUE(!watches[2].watch && watches[2].path == "/f");
    EXPECT_TRUE(!watches[3].watch && watches[3].path == "/m");
}

TEST_F(WatchHandlesTest, AConsumerIsRegisteredWhileItsHandleIsValidAndItsProducerMayGo)
{
    Framework::Module module("consumers");
    EXPECT_FALSE(MessageConsumerHandle(&module, "nobody", 7, "me", &owner).Valid());
    {
        const MessageConsumerHandle first(&module, "audit_task", 7, "me", &owner);
        EXPECT_TRUE(first.Valid());
        EXPECT_FALSE(MessageConsumerHandle(&module, "audit_task", 7, "me", &owner).Valid()) << "the name is taken";
    }
    MessageConsumerHandle again(&module, "audit_task", 7, "me", &owner);
    EXPECT_TRUE(again.Valid()) << "the name is free again";
    agent.Stop();
    again.Reset();
    EXPECT_FALSE(again.Valid());
    EXPECT_THAT(logs.Texts(Message::PRIO_WARNING),
                ElementsAre("Could not find task: nobody", "Registration to task failed: audit_task"));
}

TEST(NormaliseDeviceTest, KeepsTheLowEightBitsOfMajorAndMinor)
{
    EXPECT_EQ(NormaliseDevice(0x00800001U), 0x801U);
    EXPECT_EQ(NormaliseDevice(0xFFF001FFU), 0xFFFFU);
}

}  // namespace
