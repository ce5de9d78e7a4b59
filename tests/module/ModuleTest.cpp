// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeModule.h"

#include "tests/support/AgentFixture.h"

namespace {

using Poco::Message;
using testing::Contains;
using testing::ElementsAre;

constexpr char document[] = R"({"content": {"image_white_namelist": [],
    "container_escape_detect_task": {"highrisk_calls": ["bind"], "host_directorys": ["/"]}}})";
constexpr char detectTask[] = "container_escape_detect_task";

// The module as the agent gets it.
class ModuleTest : public Support::AgentFixture {
protected:
    void Load() { EXPECT_TRUE(agent.AddModule(std::unique_ptr<Framework::Module>(CreateModule()))); }
};

TEST_F(ModuleTest, WithoutItsSourcesItStaysIdle)
{
    Load();
    EXPECT_THAT(logs.Texts(Message::PRIO_ERROR), ElementsAre("not got container_collect_task"));
}

TEST_F(ModuleTest, WithoutTraceEventsItStaysIdle)
{
    AddTask(std::make_unique<Support::CollectorTask>());
    Load();
    EXPECT_THAT(logs.Texts(Message::PRIO_ERROR), ElementsAre("not got ftrace or the ftrace is not enabled"));
    EXPECT_EQ(agent.FindTask(detectTask), nullptr);
}

TEST_F(ModuleTest, APolicyStartsTheDetectorsInTheirOrder)
{
    AddHostTasks();
    Load();
    EXPECT_THAT(agent.RunningTasks(), testing::Not(Contains(detectTask))) << "not before it has a policy";
    ASSERT_TRUE(agent.ApplyPolicy("10001", "containerescape", document));
    EXPECT_THAT(agent.RunningTasks(), Contains(detectTask));
    Settle(*agent.FindTask(detectTask));
    std::vector<std::string> calls;
    for (const std::string& watch : TraceWatches()) {
        if (watch.starts_with("syscalls:")) {
            calls.push_back(watch);
        }
    }
    // Brute force watches one call, Shocker three in the order of a hash set, Dirty COW an odd one, high-risk the
    // policy's.
    ASSERT_EQ(calls.size(), 6U);
    EXPECT_EQ(calls[0], "syscalls:sys_enter_open_by_handle_at");
    EXPECT_EQ(calls[4], "syscalls:sys_enter_always,exit -S madvise -S ptrace");
    EXPECT_EQ(calls[5], "syscalls:sys_enter_bind");
}

TEST_F(ModuleTest, PoliciesAreMadeForThisFeatureOnly)
{
    Engine::ContainerEscapeModule module;
    Framework::Policy held("held");
    Framework::Policy* slot = &held;
    EXPECT_EQ(module.RefreshFeaturePolicy("ContainerEscape", document, slot), nullptr);
    EXPECT_TRUE(slot == &held && held.changed);
    const std::unique_ptr<Framework::Policy> broken(module.RefreshFeaturePolicy("containerescape", "{", slot));
    EXPECT_NE(broken, nullptr);
    EXPECT_THAT(logs.Texts(Message::PRIO_WARNING), testing::SizeIs(1));
}

}  // namespace
