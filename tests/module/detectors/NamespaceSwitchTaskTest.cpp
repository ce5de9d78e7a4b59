// SPDX-License-Identifier: Apache-2.0
#include "NamespaceSwitchCheckTask.h"
#include "tests/support/AgentFixture.h"

namespace Engine {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

using Namespaces = std::map<std::string, std::string>;

class NamespaceSwitchTaskTest : public Support::AgentFixture {
protected:
    NamespaceSwitchTaskTest()
    {
        host.AddFakes();
        host.containers["c1"] = {"c1", "", "sha256:1", "alpine:3", own, {}};
    }
    void Run(int pid, const std::string& container, const Namespaces& namespaces)
    {
        world.Put(pid, {{1, "sh"}, container, "/bin/sh", namespaces});
    }
    std::vector<Json::Value> AlarmsOfARound()
    {
        task.BatchCheckProcess();
        return Alarms();
    }

    const Namespaces own{{"mnt", "mnt:[1]"}, {"net", "net:[1]"}};
    const Namespaces switched{{"mnt", "mnt:[7]"}, {"net", "net:[7]"}};
    NamespaceSwitchTask task{"containerescape"};
};

TEST_F(NamespaceSwitchTaskTest, ProcessThatLeftItsContainersNamespacesIsReportedInEveryRound)
{
    host.Add(std::make_unique<ProcsFullTask>());
    Run(10, "c1", own);
    Run(11, "c1", switched);
    Run(12, "", switched);
    std::set<std::string> ids;
    for (int round = 0; round < 2; ++round) {
        std::vector<Json::Value> alarms = AlarmsOfARound();
        ASSERT_THAT(alarms, SizeIs(1));
        ids.insert(alarms[0]["event_id"].asString());
        alarms[0].removeMember("event_id");
        EXPECT_EQ(alarms[0], Parsed(R"({
            "event_name": "Namespace switch attack", "event_classid": "containerescape_0001",
            "type": "container_user_file_violation", "container_name": "", "image_name": "alpine:3",
            "occur_time": 1700000000, "event_category": 3000, "event_type": 2042, "serverity": 3, "event_count": 1,
            "attack_phase": 4, "attack_tag": 2, "confidence": 60, "detect_module": "containerescape_module",
            "resource_info": {"container_id": "c1", "image_id": "sha256:1"}, "process_info": [{"process_pid": 11,
            "process_path": "/bin/sh", "process_name": "sh", "process_cmdline": "sh"}]})"));
    }
    EXPECT_THAT(ids, SizeIs(2));
}

TEST_F(NamespaceSwitchTaskTest, WhatCannotBeComparedIsPassedOver)
{
    Run(11, "c1", switched);
    EXPECT_THAT(AlarmsOfARound(), IsEmpty()) << "no process list";
    host.Add(std::make_unique<ProcsFullTask>());
    host.isMetadataAvailable = false;
    EXPECT_THAT(AlarmsOfARound(), IsEmpty()) << "the service has not read the containers yet";
    host.isMetadataAvailable = true;
    EXPECT_THAT(AlarmsOfARound(), SizeIs(1));
    Run(11, "c2", switched);
    EXPECT_THAT(AlarmsOfARound(), IsEmpty()) << "unknown container";
    Run(11, "c1", {});
    EXPECT_THAT(AlarmsOfARound(), IsEmpty()) << "the process's namespaces cannot be read";
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
