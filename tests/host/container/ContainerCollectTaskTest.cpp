// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerCollectTask.h"

#include <gtest/gtest.h>

#include "framework/Engine.h"
#include "host/sdk/FakeEngine.h"
#include "tests/host/container/ContainerFixture.h"
#include "tests/support/TaskModule.h"

namespace {

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the contract's destructor is protected
struct Observable final : Engine::TraceObservable {
    bool AddObserver(Engine::TraceObserver& /*observer*/) override { return true; }
    void RemoveObserver(Engine::TraceObserver& /*observer*/) override {}
    void RequestRound() override { ++rounds; }
    int rounds = 0;
};

// Its own thread may be waiting for an engine that hangs.
TEST(ContainerCollectTaskTest, RegistrationTakesEffectWithoutTheTasksThread)
{
    FakeProc proc;
    Observable trace;
    Engine::ContainerCollectTask task("/none", proc);
    ASSERT_TRUE(task.Attach(trace));
    std::shared_ptr<Framework::Message> on = std::make_shared<Engine::ContainerRegisterMessage>(&task, false, true);
    EXPECT_EQ(task.EnqueueMsg(on), 0);
    EXPECT_EQ(trace.rounds, 2);
    std::shared_ptr<Framework::Message> bad = std::make_shared<Engine::ContainerRegisterMessage>(nullptr, false, true);
    EXPECT_EQ(task.EnqueueMsg(bad), -1);
}

// The caller is the thread that raises alarms: it gets the id, and neither waits for the engine nor asks it.
TEST(ContainerCollectTaskTest, AContainerIsAnsweredWithoutTheEngine)
{
    std::vector<SDK::FileDescriptor> hanging;
    FakeEngine server([&hanging](const std::string& /*target*/, SDK::FileDescriptor& connection) {
        hanging.push_back(std::move(connection));
    });
    FakeProc proc;
    Framework::Engine agent;
    agent.AddModule(std::make_unique<Support::TaskModule>(
        std::make_unique<Engine::ContainerCollectTask>(server.SocketPath(), proc)));
    while (server.Requests().empty()) {
        std::this_thread::yield();  // until the task's thread is in its first call
    }
    SDK::DockerClient client{server.SocketPath()};
    Engine::ContainerInfo info;
    info.imageName = "another's";
    EXPECT_TRUE(DockerUtil::GetContainerInfo(client, idA, info));
    EXPECT_EQ(info.id, idA);
    EXPECT_EQ(info.imageName, "") << "a container without a name is one all the same";
    for (const std::string& id : {std::string{}, "../" + idA, std::string{"a\r\nX: y"}, std::string(129, 'a')}) {
        EXPECT_FALSE(DockerUtil::GetContainerInfo(client, id, info)) << id;
    }
    agent.Stop();
    for (const std::string& request : server.Requests()) {
        EXPECT_EQ(request.find("/containers/"), std::string::npos) << request;
    }
}

}  // namespace
