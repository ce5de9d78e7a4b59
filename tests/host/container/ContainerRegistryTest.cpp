// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerRegistry.h"

#include <gmock/gmock.h>

#include <string>

#include "host/container/RuntimeProgram.h"
#include "host/sdk/TraceTime.h"
#include "tests/host/container/FakeProc.h"

namespace {

using Engine::ContainerRegistry;
using testing::ElementsAre;
using State = ContainerRegistry::State;

// Processes of the host: the engine's shim, the runtime it starts, and an administrator's shell.
constexpr int shim = 100;
constexpr int runtime = 200;
constexpr int shell = 300;

class ContainerRegistryTest : public testing::Test {
protected:
    ContainerRegistryTest()
    {
        for (const int pid : {shim, runtime, shell}) {
            proc.threads[pid].hasHostMounts = true;
        }
    }

    // Every event comes a millisecond after the one before.
    std::chrono::nanoseconds Next() { return now += std::chrono::milliseconds{1}; }
    void Fork(int parent, int child) { registry.ApplyFork(parent, child, Next()); }
    bool Exec(int pid, const std::string& file) { return registry.ApplyExec(pid, pid, file, Next()); }
    void Attach(int mover, int pid, const std::string& path) { registry.ApplyAttach(mover, pid, path, Next()); }
    void Exit(int pid) { registry.ApplyExit(pid, Next()); }

    std::string ContainerOf(int pid)
    {
        std::string id;
        return registry.ContainerOf(pid, id) == 0 ? id : "gone";
    }
    std::string ContainerAt(int pid, std::chrono::nanoseconds when)
    {
        SDK::TraceTime::Scope scope;
        scope.MoveTo(when);
        return ContainerOf(pid);
    }

    // A process of container A that runs already.
    void StartInA(int pid)
    {
        Fork(shim, pid);
        Attach(runtime, pid, GroupOf(idA));
        ASSERT_TRUE(Exec(pid, "/bin/sh"));
    }

    FakeProc proc;
    ContainerRegistry registry{proc};
    std::chrono::nanoseconds now = std::chrono::seconds{1000};
};

TEST(RuntimeProgramTest, KnowsTheFormsOfSelfExecution)
{
    for (const char* name : {"/proc/self/exe", "/proc/self/fd/6", "/proc/thread-self/fd/7", "/dev/fd/5",
                             "/proc/3014/exe", "/proc/3014/fd/12", "memfd:runc_cloned:/proc/self/exe", "/memfd:x"}) {
        EXPECT_TRUE(Engine::IsSelfExecution(name)) << name;
    }
    for (const char* name : {"", "/bin/sh", "/proc/self/exec", "/proc/self/fd/", "/proc/self/fd/6x", "/dev/fd/../x",
                             "/proc/x/exe", "/proc//exe", "/proc/self", "proc/self/exe", "/dev/fd"}) {
        EXPECT_FALSE(Engine::IsSelfExecution(name)) << name;
    }
}

// As recorded from an engine that starts a container: the runtime's set-up process executes itself twice, is moved into
// the group in each of its hierarchies, forks twice, and its grandchild becomes the container's first process.
TEST_F(ContainerRegistryTest, ContainerBeginsWithTheExecThatEndsTheSetUp)
{
    Fork(runtime, 3141);
    proc.threads[3141].hasHostMounts = true;
    EXPECT_FALSE(Exec(3141, "/proc/self/exe"));
    EXPECT_FALSE(Exec(3141, "/dev/fd/6"));
    for (int hierarchy = 0; hierarchy < 10; ++hierarchy) {
        Attach(runtime, 3141, GroupOf(idA));
    }
    Fork(3141, 3142);
    Fork(3142, 3143);
    Exit(3142);
    Exit(3141);
    Fork(3143, 3144);  // a thread
    EXPECT_EQ(registry.Find(3143)->state, State::Entering);
    EXPECT_EQ(ContainerOf(3143), "");

    EXPECT_TRUE(Exec(3143, "/bin/sleep"));
    EXPECT_EQ(ContainerOf(3143), idA);
    EXPECT_EQ(registry.Find(3143)->parent, 3142);
    EXPECT_EQ(*registry.Find(3143)->executable, "/bin/sleep");
    Fork(3143, 3150);
    EXPECT_EQ(ContainerOf(3150), idA);
    EXPECT_FALSE(Exec(3150, "/proc/self/exe")) << "who is inside stays inside";
    EXPECT_EQ(ContainerOf(3150), idA);
}

// On a busy machine /proc is read when the helper has been moved, has forked and has ended already.
TEST_F(ContainerRegistryTest, SetUpHelperThatEndedBeforeItsExecWasLookedAtIsStillTheRuntime)
{
    Fork(runtime, 3141);
    proc.threads[3141] = {.container = idA, .isZombie = true};
    EXPECT_FALSE(Exec(3141, "/dev/fd/6"));
    Attach(runtime, 3141, GroupOf(idA));
    Fork(3141, 3142);
    EXPECT_EQ(ContainerOf(3142), "") << "it is the one that unshares";
    Fork(3142, 3143);
    EXPECT_TRUE(Exec(3143, "/bin/sleep"));
    EXPECT_EQ(ContainerOf(3143), idA);
}

// As recorded from an engine that puts a process into a running container: it is moved after its threads were made.
TEST_F(ContainerRegistryTest, ProcessPutIntoAContainerBelongsToItFromItsExecOn)
{
    Fork(runtime, 3189);
    proc.threads[3189].hasHostMounts = true;
    Exec(3189, "/proc/self/exe");
    Exec(3189, "/dev/fd/5");
    Fork(3189, 3190);
    Fork(3190, 3191);
    Fork(3191, 3192);
    Attach(runtime, 3191, GroupOf(idA));
    EXPECT_EQ(ContainerOf(3191), "");
    Exit(3192);
    EXPECT_TRUE(Exec(3191, "/bin/true"));
    EXPECT_EQ(ContainerOf(3191), idA);
}

TEST_F(ContainerRegistryTest, ChildThatIsBornInsideTheGroupNeedsNoAttachEvent)
{
    proc.threads[shell].hasHostMounts = true;
    Exec(shell, "/proc/self/exe");
    proc.threads[400] = {idA, shell, true};
    Fork(shell, 400);
    EXPECT_EQ(registry.Find(400)->state, State::Entering);
    EXPECT_FALSE(Exec(400, "/proc/self/fd/9"));
    proc.threads[400].hasHostMounts = false;
    EXPECT_TRUE(Exec(400, "/entry"));

    // A runtime that does not execute itself: seen at the exec.
    Fork(runtime, 401);
    proc.threads[401] = {idB, runtime};
    EXPECT_EQ(ContainerOf(401), "");
    EXPECT_TRUE(Exec(401, "/entry"));
    EXPECT_EQ(ContainerOf(401), idB);
}

TEST_F(ContainerRegistryTest, EntryPointNamedLikeTheRuntimesOwnIsNotTheRuntime)
{
    Fork(runtime, 400);
    Attach(runtime, 400, GroupOf(idA));
    proc.threads[400] = {idA, runtime, false};
    EXPECT_TRUE(Exec(400, "/proc/self/exe"));
    EXPECT_EQ(ContainerOf(400), idA);
}

TEST_F(ContainerRegistryTest, ContainerCannotMoveItselfOutButTheHostCan)
{
    StartInA(400);
    Fork(400, 401);
    proc.threads[400] = {"", shim};
    Attach(400, 400, "/");
    Attach(401, 400, GroupOf(idB));
    EXPECT_EQ(ContainerOf(400), idA);

    Attach(shell, 400, GroupOf(idB));
    EXPECT_EQ(ContainerOf(400), idB);
    proc.threads[400].container = idB;
    Attach(shell, 400, "/");  // one hierarchy of several
    EXPECT_EQ(ContainerOf(400), idB);
    proc.threads[400].container = "";
    Attach(shell, 400, "/");
    EXPECT_EQ(ContainerOf(400), "");
}

TEST_F(ContainerRegistryTest, OtherThreadsMoveWithTheirLeader)
{
    StartInA(400);
    Fork(400, 401);  // a thread
    Fork(400, 402);  // a process
    proc.threads[400] = {idB, shim, false, false, {401}};
    proc.threads[401].container = idB;
    proc.threads[402].container = idA;
    Attach(shell, 400, GroupOf(idB));
    EXPECT_EQ(ContainerOf(401), idB);
    EXPECT_EQ(ContainerOf(402), idA);
}

TEST_F(ContainerRegistryTest, ReusedIdIsTheNewProcess)
{
    StartInA(400);
    Exit(400);
    EXPECT_EQ(ContainerOf(400), idA) << "what is asked about the dead lags behind";
    Fork(shell, 400);
    EXPECT_EQ(ContainerOf(400), "");
    registry.Purge(now + ContainerRegistry::keepDead * 2);
    EXPECT_NE(registry.Find(400), nullptr) << "the new one does not go with the old one's exit";
    Exit(400);
    registry.Purge(now + ContainerRegistry::keepDead * 2);
    EXPECT_EQ(registry.Find(400), nullptr);
}

TEST_F(ContainerRegistryTest, ExitBeforeItsForkLeavesNothingBehind)
{
    const auto born = Next();
    Exit(400);
    registry.ApplyFork(shell, 400, born);
    registry.Purge(now + ContainerRegistry::keepDead * 2);
    EXPECT_EQ(registry.Find(400), nullptr);
}

TEST_F(ContainerRegistryTest, ThreadThatExecsTakesTheLeadersPlace)
{
    StartInA(400);
    Fork(400, 401);
    Exit(400);  // the leader has ended before its threads
    registry.ApplyExec(400, 401, "/bin/other", Next());
    EXPECT_EQ(registry.Find(401), nullptr);
    registry.Purge(now + ContainerRegistry::keepDead * 2);
    EXPECT_EQ(ContainerOf(400), idA);
}

TEST_F(ContainerRegistryTest, LateReaderIsToldWhatHeldAtItsEventsTime)
{
    Fork(shim, 400);
    Attach(runtime, 400, GroupOf(idA));
    const auto setUp = Next();
    Exec(400, "/bin/sh");
    const auto running = Next();
    Exit(400);
    Fork(shell, 400);
    const auto reused = Next();
    EXPECT_EQ(ContainerAt(400, running), idA);
    EXPECT_EQ(ContainerAt(400, reused), "");
    EXPECT_EQ(ContainerOf(400), "");

    StartInA(500);
    EXPECT_EQ(ContainerAt(500, setUp), "");
}

TEST_F(ContainerRegistryTest, UnknownThreadsAreReadOnce)
{
    proc.threads[400] = {idA, shim};
    EXPECT_EQ(registry.FindOrLoad(400, Next())->state, State::Inside);
    EXPECT_EQ(registry.FindOrLoad(shell, Next())->state, State::Host);
    const int reads = proc.reads;
    registry.FindOrLoad(400, Next());
    registry.FindOrLoad(shell, Next());
    EXPECT_EQ(proc.reads, reads);
    EXPECT_EQ(registry.FindOrLoad(999, Next()), nullptr);
    EXPECT_EQ(ContainerOf(999), "gone");
    Fork(400, 401);
    EXPECT_EQ(ContainerOf(401), idA);
}

TEST_F(ContainerRegistryTest, ProcCorrectsWhatWasLost)
{
    StartInA(400);
    StartInA(401);
    Fork(runtime, 402);
    Attach(runtime, 402, GroupOf(idA));
    proc.threads[400] = {idA, shim};
    proc.threads[402] = {idA, shim};                       // its exec was lost
    proc.threads[403] = {idB, shim, false, false, {404}};  // its fork was lost; 401's exit too
    const auto before = now;
    registry.Resync(Next(), Next());
    EXPECT_EQ(ContainerOf(400), idA);
    EXPECT_EQ(ContainerOf(402), idA);
    EXPECT_EQ(ContainerOf(404), idB);
    EXPECT_EQ(ContainerAt(404, before), "");
    EXPECT_EQ(registry.Find(404)->parent, 403);
    registry.Purge(now + ContainerRegistry::keepDead * 2);
    EXPECT_EQ(registry.Find(401), nullptr);
    EXPECT_TRUE(registry.HasOther(idA, 400));
    Exit(402);
    EXPECT_FALSE(registry.HasOther(idA, 400)) << "the dead do not count";
}

TEST_F(ContainerRegistryTest, WhatOnlyLooksLikeARuntimeIsBelievedForAShortTime)
{
    proc.threads[400] = {idA, runtime, false, true};  // a copy of its parent, which is the host's
    proc.threads[401] = {idA, 402, false, true};      // a copy of its parent, which is in the container
    proc.threads[402] = {idA, shim};
    registry.Resync(ContainerRegistry::longAgo, now);
    EXPECT_EQ(registry.Find(400)->state, State::Entering);
    EXPECT_EQ(registry.Find(401)->state, State::Inside);
    EXPECT_THAT(registry.PromoteOverdue(now + ContainerRegistry::believeSetUp / 2), ElementsAre());
    EXPECT_THAT(registry.PromoteOverdue(now + ContainerRegistry::believeSetUp), ElementsAre(400));
    EXPECT_EQ(ContainerOf(400), idA);
}

}  // namespace
