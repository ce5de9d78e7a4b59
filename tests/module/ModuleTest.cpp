// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeModule.h"

#include "tests/support/AgentFixture.h"

namespace {

using testing::Contains;

constexpr char document[] = R"({"content": {"image_white_namelist": [],
    "container_escape_detect_task": {"highrisk_calls": ["bind"], "host_directorys": ["/"]}}})";
constexpr char detectTask[] = "container_escape_detect_task";

// The module as the agent gets it.
class ModuleTest : public Support::AgentFixture {
protected:
    bool Load() { return host.agent.AddModule(std::unique_ptr<Framework::Module>(CreateModule())); }
};

TEST_F(ModuleTest, WithoutOneOfItsSourcesItStaysLoadedButIdle)
{
    for (const char* source : {"container_collect_task", "ftrace_task"}) {
        EXPECT_TRUE(Load());
        EXPECT_EQ(host.agent.FindTask(detectTask), nullptr) << "before " << source;
        host.AddFake(source);
    }
    EXPECT_TRUE(Load());
    EXPECT_NE(host.agent.FindTask(detectTask), nullptr);
}

TEST_F(ModuleTest, APolicyStartsTheDetectorsInTheirOrder)
{
    host.AddFakes();
    EXPECT_TRUE(Load());
    EXPECT_THAT(host.agent.RunningTasks(), testing::Not(Contains(detectTask))) << "not before it has a policy";
    ASSERT_TRUE(host.agent.ApplyPolicy("10001", "containerescape", document));
    ASSERT_EQ(host.agent.WaitStarted(detectTask, std::chrono::minutes{1}), Framework::Engine::StartResult::Running);
    std::vector<std::string> calls = host.TakeJournal();
    std::erase_if(calls, [](const std::string& line) { return !line.starts_with("syscalls:"); });
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
    EXPECT_NE(broken, nullptr) << "with what could be read of it";
}

}  // namespace
