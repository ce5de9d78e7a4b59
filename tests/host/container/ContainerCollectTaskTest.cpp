// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerCollectTask.h"

#include <gtest/gtest.h>

#include "tests/host/container/ContainerFixture.h"

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

}  // namespace
