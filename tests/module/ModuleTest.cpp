// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeModule.h"

#include "tests/support/AgentFixture.h"

namespace {

constexpr char document[] = R"({"content": {"image_white_namelist": [],
    "container_escape_detect_task": {"highrisk_calls": ["bind"], "host_directorys": ["/"]}}})";
constexpr char detectTask[] = "container_escape_detect_task";

using ModuleTest = Support::AgentFixture;

TEST_F(ModuleTest, WaitsForItsSourcesAndThenForAPolicyThatStartsTheDetectorsInTheirOrder)
{
    host.AddFake("filenotify_task");
    for (const char* source : {"container_collect_task", "ftrace_task"}) {
        EXPECT_TRUE(host.agent.AddModule(std::unique_ptr<Framework::Module>(CreateModule())));
        EXPECT_EQ(host.agent.FindTask(detectTask), nullptr) << "before " << source;
        host.AddFake(source);
    }
    EXPECT_TRUE(host.agent.AddModule(std::unique_ptr<Framework::Module>(CreateModule())));
    EXPECT_THAT(host.agent.RunningTasks(), testing::Not(testing::Contains(detectTask)));
    EXPECT_FALSE(host.agent.ApplyPolicy("10001", "ContainerEscape", document)) << "another feature's";
    ASSERT_TRUE(host.agent.ApplyPolicy("10001", "containerescape", document));
    ASSERT_EQ(host.agent.WaitStarted(detectTask, std::chrono::minutes{1}), Framework::Engine::StartResult::Running);
    std::vector<std::string> calls = host.TakeJournal();
    EXPECT_THAT(calls, testing::Contains("/ 2 8 notifyOnly"));
    std::erase_if(calls, [](const std::string& line) { return !line.starts_with("syscalls:"); });
    // Brute force watches one call, Shocker three in the order of a hash set, Dirty COW an odd one, high-risk the
    // policy's.
    ASSERT_EQ(calls.size(), 6U);
    EXPECT_EQ(calls[0], "syscalls:sys_enter_open_by_handle_at");
    EXPECT_EQ(calls[4], "syscalls:sys_enter_always,exit -S madvise -S ptrace");
    EXPECT_EQ(calls[5], "syscalls:sys_enter_bind");
    EXPECT_TRUE(host.agent.ApplyPolicy("10001", "containerescape", "{")) << "a policy with what could be read of it";
    host.agent.Stop();
    EXPECT_THAT(host.TakeJournal(), testing::IsSupersetOf({"-/", "-syscalls:sys_enter_bind"}));
}

}  // namespace
