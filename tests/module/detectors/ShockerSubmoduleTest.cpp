// SPDX-License-Identifier: Apache-2.0
#include "ShockerSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class ShockerSubmoduleTest : public Support::DetectorTest {
protected:
    ShockerSubmodule& AttachShocker() { return Attach<ShockerSubmodule>(*task, collector); }
};

TEST_F(ShockerSubmoduleTest, AlarmsWhenAListingOfAKnownProcessIsFollowedByAnOpeningByHandle)
{
    AttachShocker();
    const std::string open = "open_by_handle_at";
    const struct {
        std::vector<std::string> calls;
        bool alarms;
    } rows[] = {
        {{"getdents", "getdents", open}, true},
        {{open, "getdents64", open}, true},
        {{"unshare", "getdents64", "mount", "getdents", open}, true},
        {{"getdents", open}, false},
        {{"getdents64", open, open}, false},
        {{"getdents", "getdents64", "open_by_handle", "open"}, false},
    };
    int pid = shell + 1000;
    for (const auto& row : rows) {
        Know(++pid);
        Call(pid, row.calls);
        EXPECT_EQ(AlarmedPids(), row.alarms ? std::vector<int>{pid} : std::vector<int>{}) << row.calls[0];
    }
}

TEST_F(ShockerSubmoduleTest, AlarmsOnceUntilTheProcessHasGone)
{
    ShockerSubmodule& shocker = AttachShocker();
    const std::vector<std::string> attack{"getdents", "getdents", "open_by_handle_at"};
    Call(shell, attack);
    EXPECT_THAT(AlarmedPids(), ElementsAre(shell));
    Call(shell, attack);
    EXPECT_THAT(AlarmedPids(), IsEmpty());

    Exit(shocker, shell);
    Call(shell, {"getdents", "open_by_handle_at"});
    EXPECT_THAT(AlarmedPids(), IsEmpty());
    Call(shell, {"getdents", "open_by_handle_at"});
    EXPECT_THAT(AlarmedPids(), ElementsAre(shell));

    shocker.DeInit();
    Call(shell, attack);
    EXPECT_THAT(AlarmedPids(), ElementsAre(shell));
}

TEST_F(ShockerSubmoduleTest, ProcessesDoNotCompleteEachOthersSequence)
{
    AttachShocker();
    Call(shell, {"getdents", "getdents"});
    Call(other, {"getdents", "open_by_handle_at"});
    EXPECT_THAT(AlarmedPids(), IsEmpty());
}

TEST_F(ShockerSubmoduleTest, AlarmNamesTheCallAndCarriesAnEmptyPath)
{
    AttachShocker();
    Call(shell, {"getdents", "getdents", "open_by_handle_at"});
    const std::vector<Json::Value> alarms = Alarms();
    ASSERT_EQ(alarms.size(), 1U);
    Support::ExpectClass(alarms[0], {"containerescape_0002", "Shocker attack", 4, 4, 2000, 2042, 60});
    EXPECT_EQ(alarms[0]["forensic_info"]["sys_call"], "open_by_handle_at");
    ASSERT_EQ(alarms[0]["file_info"].size(), 1U);
    EXPECT_EQ(alarms[0]["file_info"][0]["file_path"], "");
}

TEST_F(ShockerSubmoduleTest, ShowsEachEventWithTheStateBeforeIt)
{
    AttachShocker();
    Call(shell, {"getdents", "getdents", "open_by_handle_at", "read"});
    std::vector<std::string> texts;
    for (const Support::LogRecord& record : logs.From("ShockerSubmodule")) {
        EXPECT_EQ(record.line, 77);
        EXPECT_EQ(record.priority, Poco::Message::PRIO_DEBUG);
        texts.push_back(record.text);
    }
    EXPECT_THAT(texts, ElementsAre("shocker got event 4711, state is 0", "shocker got event 4711, state is 1",
                                   "shocker got event 4711, state is 2", "shocker got event 4711, state is 3"));
}

TEST_F(ShockerSubmoduleTest, SubscribesToItsThreeCallsAndNoFile)
{
    ShockerSubmodule& shocker = AttachShocker();
    EXPECT_EQ(static_cast<Submodule&>(shocker).Init(), 0);
    EXPECT_THAT(TraceWatches(), UnorderedElementsAre("syscalls:sys_enter_open_by_handle_at",
                                                     "syscalls:sys_enter_getdents", "syscalls:sys_enter_getdents64"));
    EXPECT_TRUE(Taken(*files, files->watches).empty());
}

TEST_F(ShockerSubmoduleTest, PathIsMountedBelowADestinationOrInAnUnknownContainer)
{
    ShockerSubmodule& shocker = AttachShocker();
    ContainerInfo container;
    container.id = "c1";
    container.mountDestinations = {"/data", "/srv/"};
    collector->Put(container);
    collector->PutPid(shell, "c1");

    EXPECT_EQ(shocker.GetContainerId(shell), "c1");
    EXPECT_EQ(shocker.GetContainerId(other), "");
    EXPECT_TRUE(shocker.IsMounted("c1", "/data/x"));
    EXPECT_TRUE(shocker.IsMounted("c1", "/srv/x"));
    EXPECT_FALSE(shocker.IsMounted("c1", "/database"));
    EXPECT_TRUE(shocker.IsMounted("c2", "/database"));
}

}  // namespace
}  // namespace Engine
