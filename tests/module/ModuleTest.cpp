// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeModule.h"

#include "ContainerEscapeFeaturePolicy.h"
#include "tests/support/AgentFixture.h"

namespace {

using Poco::Message;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr char document[] = R"({"content": {"image_white_namelist": [],
    "container_escape_detect_task": {"highrisk_calls": ["bind"], "host_directorys": ["/"]}}})";
constexpr char detectTask[] = "container_escape_detect_task";

class ModuleTest : public Support::AgentFixture {
protected:
    // The module as the agent gets it. The agent's.
    Engine::ContainerEscapeModule* Load()
    {
        std::unique_ptr<Framework::Module> created(CreateModule());
        auto* module = dynamic_cast<Engine::ContainerEscapeModule*>(created.get());
        EXPECT_TRUE(agent.AddModule(std::move(created)));
        return module;
    }
};

TEST_F(ModuleTest, WithoutItsSourcesItStaysIdle)
{
    Load();
    EXPECT_THAT(logs.Texts(Message::PRIO_ERROR), ElementsAre("not got container_collect_task"));
    agent.Stop();
    EXPECT_THAT(logs.With("container escape module loading"), testing::SizeIs(1));
}

TEST_F(ModuleTest, WithoutTraceEventsItStaysIdle)
{
    AddTask(std::make_unique<Support::CollectorTask>());
    Engine::ContainerEscapeModule* module = Load();
    EXPECT_THAT(logs.Texts(Message::PRIO_ERROR), ElementsAre("not got ftrace or the ftrace is not enabled"));
    EXPECT_EQ(agent.FindTask(detectTask), nullptr);
    EXPECT_EQ(module->UnInit(), 0);
}

TEST_F(ModuleTest, APolicyStartsDetectionAndAnAlarmComesOut)
{
    AddHostTasks();
    Load();
    Framework::Task* task = agent.FindTask(detectTask);
    ASSERT_NE(task, nullptr);
    EXPECT_THAT(agent.RunningTasks(), Not(Contains(detectTask))) << "not before it has a policy";
    ASSERT_TRUE(agent.ApplyPolicy("10001", "containerescape", document));
    EXPECT_THAT(agent.RunningTasks(), Contains(detectTask));

    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    info->pid = 7;
    info->containerId = "c1";
    ASSERT_EQ(data->SendDirectMsg(detectTask, new Engine::ContainerProcMessage(true, info)), 0);
    const Support::TraceEvent event = Support::Syscall(7, "bind", 49);
    ASSERT_EQ(data->SendDirectMsg(detectTask, new Engine::FtraceMessage(event.Message())), 0);
    Settle(*task);
    const auto alarms = Alarms();
    ASSERT_EQ(alarms.size(), 1U);
    EXPECT_EQ(alarms[0]["event_name"], "High-Risk System Invocation");
    EXPECT_THAT(TraceWatches(), testing::IsSupersetOf({"sched:sched_process_fork", "syscalls:sys_enter_bind",
                                                       "syscalls:sys_enter_open_by_handle_at"}));
    agent.Stop();
    EXPECT_THAT(logs.With("Container escape task UnInit done"), testing::SizeIs(1));
}

TEST_F(ModuleTest, TheDetectorsAreAttachedInTheirOrder)
{
    AddHostTasks();
    Load();
    ASSERT_TRUE(agent.ApplyPolicy("10001", "containerescape", document));
    Settle(*agent.FindTask(detectTask));
    std::vector<std::string> calls;
    for (const std::string& watch : TraceWatches()) {
        if (watch.rfind("syscalls:", 0) == 0 && (calls.empty() || calls.back() != watch)) {
            calls.push_back(watch);
        }
    }
    // Brute force watches one call, Shocker three in the order of a hash set, Dirty COW an odd one, high-risk the
    // policy's.
    ASSERT_GE(calls.size(), 4U);
    EXPECT_EQ(calls.front(), "syscalls:sys_enter_open_by_handle_at");
    EXPECT_EQ(calls[calls.size() - 2], "syscalls:sys_enter_always,exit -S madvise -S ptrace");
    EXPECT_EQ(calls.back(), "syscalls:sys_enter_bind");
}

TEST_F(ModuleTest, PoliciesAreMadeForThisFeatureOnly)
{
    Engine::ContainerEscapeModule module;
    Framework::Policy held("held");
    Framework::Policy* slot = &held;
    EXPECT_EQ(module.RefreshFeaturePolicy("ContainerEscape", document, slot), nullptr);
    EXPECT_TRUE(slot == &held && held.changed);
    EXPECT_THAT(logs.Texts(Message::PRIO_TRACE),
                ElementsAre("refresh policy ContainerEscape", "refresh policy ContainerEscape done"));

    slot = nullptr;
    const std::unique_ptr<Framework::Policy> policy(module.RefreshFeaturePolicy("containerescape", document, slot));
    EXPECT_NE(dynamic_cast<Engine::ContainerEscapeFeaturePolicy*>(policy.get()), nullptr);
    EXPECT_EQ(slot, nullptr);
    const std::unique_ptr<Framework::Policy> broken(module.RefreshFeaturePolicy("containerescape", "{", slot));
    EXPECT_NE(broken, nullptr);
    EXPECT_THAT(logs.Texts(Message::PRIO_WARNING), testing::SizeIs(1));
}

}  // namespace
