// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <map>
#include <memory>
#include <vector>

#include "messages/ProcsMessage.h"
#include "tests/support/FakeSystem.h"

namespace {

using testing::ElementsAre;
using testing::Key;

// Lists a process that has gone by the time it is asked about.
class FleetingSystem : public Support::FakeSystem {
public:
    std::vector<int> Processes() override
    {
        std::vector<int> pids = FakeSystem::Processes();
        pids.push_back(99);
        return pids;
    }
};

TEST(ProcsFullTaskTest, ListsWhatRunsAndLeavesOutWhatWentAway)
{
    FleetingSystem world;
    world.Put(1, {{0, "kthreadd"}, "", "", {}});
    world.Put(7, {{1, "sh"}, "c0ffee", "/bin/sh", {}});
    Engine::ProcsFullTask task;
    std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>> procs{{5, nullptr}};
    task.GetProcsMap(procs);
    ASSERT_THAT(procs, ElementsAre(Key(1), Key(7)));
    EXPECT_EQ(procs[1]->path, "");
    EXPECT_EQ(procs[7]->pid, 7);
    EXPECT_EQ(procs[7]->ppid, 1);
    EXPECT_EQ(procs[7]->path, "/bin/sh");
    EXPECT_EQ(procs[7]->name, "sh");
    EXPECT_EQ(procs[7]->cmdline, "sh");
    EXPECT_EQ(procs[7]->containerId, "c0ffee");
}

}  // namespace
