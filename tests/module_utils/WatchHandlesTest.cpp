// SPDX-License-Identifier: Apache-2.0
#include "WatchHandles.h"

#include "FtraceUtils.h"
#include "tests/support/AgentFixture.h"

namespace {

using Poco::Message;
using Support::LogRecord;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace Engine::FtraceUtils;

class WatchHandlesTest : public Support::AgentFixture {
protected:
    void SetUp() override { AddHostTasks(); }

    LogRecord Record(Message::Priority priority, const char* file, int line, const std::string& text) const
    {
        return {logs.RootName(), priority, text, file, line};
    }

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
    EXPECT_THAT(logs.From("FtraceUtils"),
                ElementsAre(Record(Message::PRIO_DEBUG, "FtraceUtils", 34, "Watching ftrace: s:a"),
                            Record(Message::PRIO_DEBUG, "FtraceUtils", 34, "Watching ftrace: s:b"),
                            Record(Message::PRIO_WARNING, "FtraceUtils", 47, "Watching ftrace s:b failed. Skipping"),
                            Record(Message::PRIO_DEBUG, "FtraceUtils", 34, "Watching ftrace: s:c")));
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
    for (const bool mount : {true, false}) {
        const _FileNotifyOpt& options = watches[mount ? 0 : 1].options;
        EXPECT_EQ(options.mount, mount);
        EXPECT_TRUE(options.notifyOnly && options.keepOrder);
        EXPECT_FALSE(options.permission || options.once || options.ownAccesses || options.dontFollow ||
                     options.existingOnly || options.countOnly || options.reserved || options.limit != 0);
    }
    EXPECT_TRUE(!watches[2].watch && watches[2].path == "/f");
    EXPECT_TRUE(!watches[3].watch && watches[3].path == "/m");
}

TEST_F(WatchHandlesTest, AConsumerIsRegisteredWhileItsHandleIsValid)
{
    Framework::Module module("consumers");
    {
        MessageConsumerHandle handle(&module, "audit_task", 7, "me", &owner);
        EXPECT_TRUE(handle.Valid());
        const MessageConsumerHandle second(&module, "audit_task", 7, "me", &owner);
        EXPECT_FALSE(second.Valid()) << "the name is taken";
        handle.Reset();
        EXPECT_FALSE(handle.Valid());
        handle.Reset();
    }
    EXPECT_EQ(audit->AddConsumer(7, "me", &owner), 0) << "the name is free again";
    EXPECT_THAT(
        logs.From("WatchHandles"),
        ElementsAre(Record(Message::PRIO_DEBUG, "WatchHandles", 41, "Registration to task succeeded: audit_task"),
                    Record(Message::PRIO_WARNING, "WatchHandles", 38, "Registration to task failed: audit_task"),
                    Record(Message::PRIO_DEBUG, "WatchHandles", 59, "Unregistered from task: audit_task")));
}

TEST_F(WatchHandlesTest, AProducerMayBeMissingOrGo)
{
    Framework::Module module("consumers");
    EXPECT_FALSE(MessageConsumerHandle(&module, "nobody", 7, "me", &owner).Valid());
    EXPECT_THAT(logs.From("WatchHandles"),
                ElementsAre(Record(Message::PRIO_WARNING, "WatchHandles", 32, "Could not find task: nobody")));

    MessageConsumerHandle handle(&module, "audit_task", 7, "me", &owner);
    agent.Stop();
    logs.Clear();
    handle.Reset();
    EXPECT_FALSE(handle.Valid());
    EXPECT_THAT(logs.From("WatchHandles"), IsEmpty());
}

TEST(NormaliseDeviceTest, KeepsTheLowEightBitsOfMajorAndMinor)
{
    EXPECT_EQ(NormaliseDevice(0x00800001U), 0x801U);
    EXPECT_EQ(NormaliseDevice(0x0FF001FFU), 0xFFFFU);
    EXPECT_EQ(NormaliseDevice(0xF00FFF00U), 0U);
}

}  // namespace
