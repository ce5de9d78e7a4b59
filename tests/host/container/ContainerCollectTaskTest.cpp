// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerCollectTask.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <future>

#include "framework/Engine.h"
#include "host/sdk/FakeEngine.h"
#include "tests/support/FakeSystem.h"

namespace {

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the contract's destructor is protected
struct Observable final : Engine::TraceObservable {
    bool AddObserver(Engine::TraceObserver& /*observer*/) override { return true; }
    void RemoveObserver(Engine::TraceObserver& /*observer*/) override {}
    void RequestRound() override { ++rounds; }
    const Engine::SyscallFilter* Filter() override { return nullptr; }
    int rounds = 0;
};

// The thread that registers and raises alarms waits neither for the task's thread nor for the engine, nor asks it.
TEST(ContainerCollectTaskTest, RegistersAndAnswersWhileTheEngineHangs)
{
    std::vector<SDK::FileDescriptor> hanging;
    std::promise<void> asked;
    FakeEngine server([&](const std::string& target, SDK::FileDescriptor& to) {
        EXPECT_THAT(target, testing::AnyOf(testing::StartsWith("/events"), "/_ping"));
        hanging.empty() ? asked.set_value() : void();
        hanging.push_back(std::move(to));
    });
    Support::FakeSystem proc;
    Observable trace;
    Framework::Engine agent;
    Framework::Module module("collector");  // goes first, with its task
    auto owned = std::make_unique<Engine::ContainerCollectTask>(
        std::vector<SDK::EngineAddress>{{"docker", server.SocketPath()}}, proc);
    Engine::ContainerCollectTask& task = *owned;
    ASSERT_TRUE(task.Attach(trace));
    module.RegisterTask(owned.release(), true);
    asked.get_future().wait();
    std::shared_ptr<Framework::Message> on = std::make_shared<Engine::ContainerRegisterMessage>(&task, false, true);
    EXPECT_EQ(task.EnqueueMsg(on), 0);
    EXPECT_EQ(trace.rounds, 2);
    SDK::DockerClient client{server.SocketPath()};
    const std::string known(64, 'a');
    Engine::ContainerInfo info{"", "", "", "another's", {}, {}};
    EXPECT_TRUE(DockerUtil::GetContainerInfo(client, known, info));
    EXPECT_EQ(info.id + info.imageName, known) << "a container without a name is one all the same";
    for (const std::string& id : {std::string{}, "../" + known, std::string{"a\r\nX: y"}, std::string(129, 'a')}) {
        EXPECT_FALSE(DockerUtil::GetContainerInfo(client, id, info)) << id;
    }
    agent.Stop();
}

// At boot not even the directory of its socket is there.
TEST(SocketWatchTest, TellsWhenASocketOrAWayToItAppears)
{
    const TemporaryDirectory directory;
    Engine::SocketWatch watch({directory / "run/engine/engine.sock", directory / "other.sock"});
    for (const char* each : {"run", "run/engine", "run/engine/engine.sock", "other.sock"}) {
        std::filesystem::create_directory(directory / each);
        EXPECT_TRUE(watch.HasAppeared()) << each;
        std::filesystem::create_directory((directory / each) + "-else");
        EXPECT_FALSE(watch.HasAppeared());
    }
}

}  // namespace
