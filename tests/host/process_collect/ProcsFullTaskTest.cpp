// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "messages/ProcsMessage.h"
#include "tests/support/FakeSystem.h"

namespace {

// Lists a process that has gone by the time it is asked about.
class FleetingSystem : public Support::FakeSystem {
public:
    std::vector<int> Processes() override { return {7, 99}; }
};

TEST(ProcsFullTaskTest, ListsWhatRunsAndExcludesWhatWentAway)
{
    FleetingSystem world;
    world.Put(7, {{1, "sh"}, "c0ffee", "/bin/sh", {}});
    std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>> procs{{5, nullptr}};
    Engine::ProcsFullTask().GetProcsMap(procs);
    ASSERT_EQ(procs.size(), 1U);
    const Engine::ProcsMessage::procInfo& shell = *procs.at(7);
    EXPECT_EQ(shell.ppid, 1);
    EXPECT_EQ(shell.path + " " + shell.name + " " + shell.containerId, "/bin/sh sh c0ffee");
}

}  // namespace
