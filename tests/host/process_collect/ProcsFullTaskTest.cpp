// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "messages/ProcsMessage.h"
#include "tests/support/FakeSystem.h"

TEST(ProcsFullTaskTest, ListsWhatRunsAndExcludesWhatWentAway)
{
    Support::FakeSystem world;
    world.Put(7, {{1, "sh"}, "c0ffee", "/bin/sh", {}});
    world.Put(99, {});  // listed, but gone by the time it is asked about
    std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>> procs{{5, nullptr}};
    Engine::ProcsFullTask().GetProcsMap(procs);
    ASSERT_EQ(procs.size(), 1U);
    const Engine::ProcsMessage::procInfo& shell = *procs.at(7);
    EXPECT_EQ(shell.ppid, 1);
    EXPECT_EQ(shell.path + " " + shell.name + " " + shell.containerId, "/bin/sh sh c0ffee");
}
