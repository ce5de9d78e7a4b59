// SPDX-License-Identifier: Apache-2.0
#include "NamespaceSwitchCheckTask.h"
#include "tests/support/AgentFixture.h"

namespace Engine {
namespace {

using Namespaces = std::map<std::string, std::string>;
using NamespaceSwitchTaskTest = Support::AgentFixture;

TEST_F(NamespaceSwitchTaskTest, AProcessThatLeftItsContainersNamespacesIsReportedInEveryRound)
{
    NamespaceSwitchTask task("containerescape");
    const auto alarmsOfARound = [&] {
        task.BatchCheckProcess();
        return Alarms();
    };
    const Namespaces own{{"mnt", "mnt:[1]"}, {"net", "net:[1]"}};
    const Namespaces switched{{"mnt", "mnt:[1]"}, {"net", "net:[12]"}};
    host.AddFakes();
    host.containers["c1"] = {"c1", "", "sha256:1", "alpine:3", own, {}};
    world.Put(10, {{1, "sh"}, "c1", "/bin/sh", own});
    world.Put(11, {{1, "sh"}, "c1", "/bin/sh", switched});
    world.Put(12, {{1, "sh"}, "", "/bin/sh", switched});
    world.Put(13, {{1, "sh"}, "unknown", "/bin/sh", switched});
    world.Put(14, {{1, "sh"}, "c1", "/bin/sh", {}});               // its namespaces cannot be read
    world.Put(15, {{}, "c1", "/bin/sh", switched});                // listed, but gone by the time it is asked about
    world.Put(16, {{1, "sh"}, "c1", "", {{"mnt", "mnt:[1]"}}});    // kinds of the container's alone do not count
    world.Put(17, {{1, "sh"}, "c1", "", {{"user", "user:[1]"}}});  // a kind that the container lacks
    EXPECT_TRUE(alarmsOfARound().empty()) << "no process list";
    host.Add(std::make_unique<ProcsFullTask>());
    host.isMetadataAvailable = false;
    EXPECT_TRUE(alarmsOfARound().empty()) << "the service has not read the containers yet";
    host.isMetadataAvailable = true;
    const std::vector<Json::Value> first = alarmsOfARound();
    std::vector<Json::Value> alarms = alarmsOfARound();
    ASSERT_EQ(first.size() + alarms.size(), 4U);
    EXPECT_NE(alarms[0]["event_id"], first[0]["event_id"]);
    alarms[0].removeMember("event_id");
    EXPECT_EQ(alarms[0], Parsed(R"({"event_name": "Namespace switch attack", "event_classid": "containerescape_0001",
        "type": "container_user_file_violation", "container_name": "", "image_name": "alpine:3",
        "occur_time": 1700000000, "event_category": 3000, "event_type": 2042, "serverity": 3, "event_count": 1,
        "attack_phase": 4, "attack_tag": 2, "confidence": 60, "detect_module": "containerescape_module",
        "resource_info": {"container_id": "c1", "image_id": "sha256:1"}, "process_info": [{"process_pid": 11,
        "process_path": "/bin/sh", "process_name": "sh", "process_cmdline": "sh"}]})"));
}

}  // namespace
}  // namespace Engine
