// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerCollectTask.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "framework/Engine.h"
#include "tests/host/container/EngineServer.h"
#include "tests/host/container/FakeProc.h"
#include "tests/support/FakeSystem.h"

namespace {

using Engine::ContainerInfo;

constexpr char list[] = "/containers/json?all=1";

// Polls for what another thread brings about; the limit is for a case that fails.
bool Eventually(const std::function<bool()>& isTrue)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds{30};
    while (!isTrue()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds{5});
    }
    return true;
}

class TestModule : public Framework::Module {
public:
    TestModule(const std::string& socket, Engine::ProcReader& reader) : Module("test"), task(socket, reader) {}
    int Init() override
    {
        RegisterTask(&task, false);
        return Module::Init();
    }
    int UnInit() override
    {
        UnRegisterTask(Engine::ContainerCollectTask::taskName);
        return Module::UnInit();
    }
    Engine::ContainerCollectTask task;
};

class ContainerCollectTaskTest : public testing::Test {
protected:
    void Start(const std::string& socket)
    {
        auto module = std::make_unique<TestModule>(socket, proc);
        task = &module->task;
        ASSERT_TRUE(agent.AddModule(std::move(module)));
    }
    std::string ImageOf(const std::string& id)
    {
        std::shared_ptr<ContainerInfo> info;
        return task->GetContainerById(id, info) ? info->imageName : "unknown";
    }

    Support::FakeSystem world;
    FakeProc proc;
    EngineServer server;
    Framework::Engine agent;
    Engine::ContainerCollectTask* task = nullptr;
};

TEST_F(ContainerCollectTaskTest, ReadsWhatRunsAndFollowsTheEvents)
{
    server.Answer(list, R"([{"Id":")" + idA + R"("},{"Id":"no/id"},7])");
    server.Container(idA, "web", "bb:1");
    Start(server.SocketPath());
    ASSERT_TRUE(Eventually([this] { return task->IsAvailable(); }));
    EXPECT_EQ(ImageOf(idA), "bb:1");
    proc.threads[400] = {idA, 1};
    std::shared_ptr<ContainerInfo> info;
    EXPECT_TRUE(task->GetContainerByPid(400, info));
    EXPECT_FALSE(task->GetContainerByPid(401, info));

    server.SendEvent("create", idB, "from-the-event:1");  // cannot be inspected any more
    EXPECT_TRUE(Eventually([this] { return ImageOf(idB) == "from-the-event:1"; }));
    server.Container(idB, "db", "bb:2");
    server.SendEvent("start", idB, "x");
    EXPECT_TRUE(Eventually([this] { return ImageOf(idB) == "bb:2"; }));
    server.SendEvent("destroy", idB, "x");
    EXPECT_EQ(ImageOf(idB), "bb:2") << "alarms about it come late";
}

TEST_F(ContainerCollectTaskTest, ReadsEverythingAnewAfterABreak)
{
    server.Answer(list, "[]");
    Start(server.SocketPath());
    ASSERT_TRUE(Eventually([this] { return task->IsAvailable(); }));
    server.Answer(list, R"([{"Id":")" + idA + "\"}]");
    server.Container(idA, "web", "bb:1");
    server.BreakEvents();
    EXPECT_TRUE(Eventually([this] { return ImageOf(idA) == "bb:1"; }));
}

TEST_F(ContainerCollectTaskTest, WorksWithoutAnEngineAndWithOneThatAnswersNonsense)
{
    server.Answer(list, "<html>");
    Start(server.SocketPath());
    EXPECT_TRUE(Eventually([this] { return task->IsAvailable(); }));
    EXPECT_EQ(ImageOf(idA), "unknown");
    server.Answer(list, R"([{"Id":")" + idA + "\"}]");
    server.Answer("/containers/" + idA + "/json", R"({"Id":")" + idB + "\"}");  // answers for another
    EXPECT_TRUE(Eventually([this] { return server.Requests() >= 4; }));
    EXPECT_EQ(ImageOf(idB), "unknown");
}

TEST_F(ContainerCollectTaskTest, RegistrationTakesEffectAtOnceAlsoWhileTheEngineHangs)
{
    server.Answer(list, "hang");
    Start(server.SocketPath());
    ASSERT_TRUE(Eventually([this] { return server.Requests() >= 2; }));
    std::shared_ptr<Framework::Message> on = std::make_shared<Engine::ContainerRegisterMessage>(task, false, true);
    EXPECT_EQ(task->EnqueueMsg(on), 0);
    std::shared_ptr<Framework::Message> bad = std::make_shared<Engine::ContainerRegisterMessage>(nullptr, false, true);
    EXPECT_EQ(task->EnqueueMsg(bad), -1);
    EXPECT_FALSE(task->IsAvailable());
}

// One program's life: the collector's cache first, then the engine, which is left alone for a while after a failure.
TEST_F(ContainerCollectTaskTest, DockerUtilAsksTheCollectorThenTheEngine)
{
    ContainerInfo info;
    SDK::DockerClient client{server.SocketPath()};
    EXPECT_FALSE(DockerUtil::GetContainerInfo(client, idA, info));
    EXPECT_EQ(server.Requests(), 1);
    server.Container(idA, "web", "bb:1");
    EXPECT_FALSE(DockerUtil::GetContainerInfo(client, idA, info)) << "not asked again so soon";
    EXPECT_FALSE(DockerUtil::GetContainerInfo(client, "../" + idA, info));
    EXPECT_EQ(server.Requests(), 1);
    server.Container(idB, "db", "bb:2");
    EXPECT_TRUE(DockerUtil::GetContainerInfo(client, idB, info));
    EXPECT_EQ(info.imageName, "bb:2");

    server.Answer(list, R"([{"Id":")" + idA + "\"}]");
    Start(server.SocketPath());
    ASSERT_TRUE(Eventually([this] { return task->IsAvailable(); }));
    EXPECT_TRUE(DockerUtil::GetContainerInfo(client, idA, info));
    EXPECT_EQ(info.name, "web");

    SDK::DockerClient absent{server.SocketPath() + ".absent"};
    EXPECT_FALSE(DockerUtil::GetContainerInfo(absent, idB, info));
}

}  // namespace
