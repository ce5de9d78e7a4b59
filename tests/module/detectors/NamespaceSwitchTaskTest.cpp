// SPDX-License-Identifier: Apache-2.0
#include <optional>

#include "NamespaceSwitchCheckTask.h"
#include "tests/support/AgentFixture.h"

namespace Engine {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

using Namespaces = std::map<std::string, std::string>;

// But for "event_id".
constexpr char alarmOfProcess11[] = R"({
    "event_name": "Namespace switch attack", "event_classid": "containerescape_0001",
    "type": "container_user_file_violation", "container_name": "", "image_name": "alpine:3",
    "occur_time": 1700000000, "event_category": 3000, "event_type": 2042, "serverity": 3, "event_count": 1,
    "attack_phase": 4, "attack_tag": 2, "confidence": 60, "detect_module": "containerescape_module",
    "resource_info": {"container_id": "c1", "image_id": "sha256:1"},
    "process_info": [{"process_pid": 11, "process_path": "/bin/sh", "process_name": "sh", "process_cmdline": "sh"}]})";

class NamespaceSwitchTaskTest : public Support::AgentFixture {
protected:
    void SetUp() override
    {
        AddHostTasks();
        ContainerInfo container;
        container.id = "c1";
        container.imageId = "sha256:1";
        container.imageName = "alpine:3";
        container.namespaces = own;
        collector->Put(container);
        task.emplace("containerescape");
    }

    void Run(int pid, const std::string& container, const Namespaces& namespaces)
    {
        world.Put(pid, {{1, "sh"}, container, "/bin/sh", namespaces});
    }

    std::vector<Json::Value> AlarmsOfARound()
    {
        task->BatchCheckProcess();
        return Alarms();
    }

    const Namespaces own{{"mnt", "mnt:[1]"}, {"net", "net:[1]"}};
    const Namespaces switched{{"mnt", "mnt:[7]"}, {"net", "net:[7]"}};
    std::optional<NamespaceSwitchTask> task;
};

TEST_F(NamespaceSwitchTaskTest, ProcessThatLeftItsContainersNamespacesIsReportedInEveryRound)
{
    AddTask(std::make_unique<ProcsFullTask>());
    Run(10, "c1", own);
    Run(11, "c1", switched);
    Run(12, "", switched);

    Json::Value expected;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(alarmOfProcess11, sizeof(alarmOfProcess11) - 1, expected), 0);
    std::set<std::string> ids;
    for (int round = 0; round < 2; ++round) {
        std::vector<Json::Value> alarms = AlarmsOfARound();
        ASSERT_THAT(alarms, SizeIs(1));
        ids.insert(alarms[0]["event_id"].asString());
        alarms[0].removeMember("event_id");
        EXPECT_EQ(SDK::JsonUtils::JsonToString(alarms[0]), SDK::JsonUtils::JsonToString(expected));
    }
    EXPECT_THAT(ids, SizeIs(2));
    EXPECT_THAT(logs.With("Container escape nss task check failed. pid:11, container:, nsName:mnt"), SizeIs(2));
}

TEST_F(NamespaceSwitchTaskTest, WhatCannotBeComparedIsLeftOut)
{
    Run(11, "c1", switched);
    EXPECT_THAT(AlarmsOfARound(), IsEmpty()) << "no process list";
    AddTask(std::make_unique<ProcsFullTask>());

    collector->available = false;
    EXPECT_THAT(AlarmsOfARound(), IsEmpty()) << "the service has not read the containers yet";
    collector->available = true;
    EXPECT_THAT(AlarmsOfARound(), SizeIs(1));

    Run(11, "c2", switched);
    EXPECT_THAT(AlarmsOfARound(), IsEmpty()) << "unknown container";

    struct Unreadable : Support::FakeSystem {
        int Namespaces(int /*pid*/, std::map<std::string, std::string>& /*namespaces*/) override { return -1; }
    } unreadable;
    unreadable.PutInContainer(11, "c1");
    EXPECT_THAT(AlarmsOfARound(), IsEmpty());
    EXPECT_THAT(logs.With("Container escape nss task get process ns info failed. pid(11)"), SizeIs(1));
}

TEST(CheckNameSpaceInfoTest, FirstKindThatIsMissingOrDiffersIsNamed)
{
    const struct {
        Namespaces process;
        Namespaces container;
        std::string failed;  // empty: consistent
    } rows[] = {
        {{}, {{"mnt", "1"}}, ""},
        {{{"net", "2"}}, {{"mnt", "1"}, {"net", "2"}}, ""},
        {{{"net", "9"}, {"mnt", "9"}, {"ipc", "3"}}, {{"ipc", "3"}, {"mnt", "1"}, {"net", "2"}}, "mnt"},
        {{{"user", "1"}, {"uts", "9"}}, {{"uts", "2"}}, "user"},
        {{{"pid", "pid:[12]"}}, {{"pid", "pid:[1]"}}, "pid"},
    };
    for (const auto& row : rows) {
        std::string nsName;
        EXPECT_EQ(CheckNameSpaceInfo(row.process, row.container, nsName), row.failed.empty());
        EXPECT_EQ(nsName, row.failed);
    }
}

}  // namespace
}  // namespace Engine
