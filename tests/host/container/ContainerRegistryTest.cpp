// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerRegistry.h"

#include "host/container/RuntimeSetUp.h"
#include "host/sdk/TraceTime.h"
#include "tests/host/container/ContainerFixture.h"

namespace {

using Engine::ContainerRegistry;
using testing::ElementsAre;
using State = ContainerRegistry::State;

class ContainerRegistryTest : public ContainerFixture {
protected:
    std::string ContainerAt(int pid, std::chrono::nanoseconds when)
    {
        SDK::TraceTime::Scope scope;
        scope.MoveTo(when);
        return ContainerOf(pid);
    }
};

TEST(RuntimeSetUpTest, KnowsTheFormsOfSelfExecution)
{
    for (const char* name : {"/proc/self/exe", "/proc/thread-self/fd/7", "/dev/fd/5", "/proc/3014/exe"}) {
        EXPECT_TRUE(Engine::RuntimeSetUp::IsSelfExecution(name)) << name;
    }
    for (const char* name : {"", "/bin/sh", "/proc/self/exec", "/proc/self/fd/", "/proc/self/fd/6x", "/dev/fd/../x",
                             "/proc/x/exe", "/proc//exe", "/memfd:runc_cloned", "memfd:x/y"}) {
        EXPECT_FALSE(Engine::RuntimeSetUp::IsSelfExecution(name)) << name;
    }
}

// On a busy machine /proc is read when the helper has been moved, has forked and has ended already.
TEST_F(ContainerRegistryTest, SetUpHelperThatEndedBeforeItsExecWasLookedAtIsStillTheRuntime)
{
    Fork(runtime, 3141);
    proc.threads[3141] = {.container = idA, .isZombie = true};
    EXPECT_FALSE(Exec(3141, "/dev/fd/6"));
    Attach(runtime, 3141, idA);
    Fork(3141, 3142);
    EXPECT_EQ(ContainerOf(3142), "") << "it is the one that unshares";
    EXPECT_TRUE(Exec(3142, "/bin/sleep"));
    EXPECT_TRUE(Exec(3142, "/proc/self/exe")) << "what is inside stays inside";
}

TEST_F(ContainerRegistryTest, EntryPointWithARuntimesNameDoesNotHideByEndingAtOnce)
{
    Fork(runtime, 3141);
    proc.threads[3141] = {.container = "", .isZombie = true};
    Exec(3141, "/proc/self/exe");
    Fork(3141, 3142);
    Attach(runtime, 3142, idA);
    proc.threads[3142] = {.container = idA, .isZombie = true};
    EXPECT_TRUE(Exec(3142, "/dev/fd/5"));
}

TEST_F(ContainerRegistryTest, ChildThatIsBornInsideTheGroupNeedsNoAttachEvent)
{
    Exec(shell, "/proc/self/exe");
    proc.threads[400] = {idA, shell, "host"};
    Fork(shell, 400);
    EXPECT_EQ(registry.Find(400)->state, State::Entering);
    EXPECT_FALSE(Exec(400, "/proc/self/fd/9"));
    proc.threads[400].mounts = "container's";
    EXPECT_TRUE(Exec(400, "/proc/self/exe")) << "an entry point that is named like the runtime's own";

    // A runtime that does not execute itself: seen at the exec.
    Fork(runtime, 401);
    proc.threads[401] = {idB, runtime};
    EXPECT_EQ(ContainerOf(401), "");
    EXPECT_TRUE(Exec(401, "/entry"));
    EXPECT_EQ(ContainerOf(401), idB);
}

TEST_F(ContainerRegistryTest, ContainerCannotMoveItselfOutButTheHostCan)
{
    StartInA(400);
    Fork(400, 401);  // a thread
    Fork(400, 402);  // a process
    proc.threads[400] = {"", shim};
    Attach(400, 400, "");
    Attach(401, 400, idB);
    EXPECT_EQ(ContainerOf(400), idA);

    proc.threads[400] = {.container = idB, .parent = shim, .others = {401}};
    proc.threads[401].container = idB;
    proc.threads[402].container = idA;
    Attach(shell, 400, idB);
    EXPECT_EQ(ContainerOf(401), idB) << "threads move with their leader";
    EXPECT_EQ(ContainerOf(402), idA);
    Attach(shell, 400, "");  // one hierarchy of several
    EXPECT_EQ(ContainerOf(400), idB);
    proc.threads[400].container = "";
    Attach(shell, 400, "");
    EXPECT_EQ(ContainerOf(400), "");
}

TEST_F(ContainerRegistryTest, ReusedIdIsTheNewProcess)
{
    StartInA(400);
    Exit(400);
    EXPECT_EQ(ContainerOf(400), idA) << "what is asked about the dead lags behind";
    Fork(shell, 400);
    EXPECT_EQ(ContainerOf(400), "");
    registry.Purge(now + Engine::ContainerTable::keepDead * 2);
    EXPECT_NE(registry.Find(400), nullptr) << "the new one does not go with the old one's exit";
    Exit(400);
    const auto born = Next();
    Exit(401);
    registry.ApplyFork(shell, 401, born);  // comes after the exit
    registry.Purge(now + Engine::ContainerTable::keepDead * 2);
    EXPECT_EQ(registry.Find(400), nullptr);
    EXPECT_EQ(registry.Find(401), nullptr);
}

TEST_F(ContainerRegistryTest, ThreadThatExecsTakesTheLeadersPlace)
{
    StartInA(400);
    Fork(400, 401);
    Exit(400);  // the leader has ended before its threads
    registry.ApplyExec(*registry.DecideExec(400, 401, "/bin/other", Next()), "/bin/other", Next());
    EXPECT_EQ(registry.Find(401), nullptr);
    registry.Purge(now + Engine::ContainerTable::keepDead * 2);
    EXPECT_EQ(ContainerOf(400), idA);
}

TEST_F(ContainerRegistryTest, LateReaderIsToldWhatHeldAtItsEventsTime)
{
    Fork(shim, 400);
    Attach(runtime, 400, idA);
    const auto setUp = Next();
    Exec(400, "/bin/sh");
    EXPECT_EQ(ContainerAt(400, setUp), "");
    const auto running = Next();
    Exit(400);
    Fork(shell, 400);
    EXPECT_EQ(ContainerAt(400, running), idA);
    EXPECT_EQ(ContainerAt(400, Next()), "");
}

TEST_F(ContainerRegistryTest, ProcCorrectsWhatWasLost)
{
    StartInA(401);
    Fork(runtime, 402);
    Attach(runtime, 402, idA);
    proc.threads[402] = {idA, shim};                                          // its exec was lost
    proc.threads[403] = {.container = idB, .parent = shim, .others = {404}};  // its fork was lost; 401's exit too
    const auto before = now;
    registry.Resync(Next(), Next());
    EXPECT_EQ(ContainerOf(402), idA);
    EXPECT_EQ(ContainerOf(404), idB);
    EXPECT_EQ(ContainerAt(404, before), "");
    registry.Purge(now + Engine::ContainerTable::keepDead * 2);
    EXPECT_EQ(registry.Find(401), nullptr);
}

TEST_F(ContainerRegistryTest, WhatMovedItselfOutStaysInsideOverALossAndSoDoItsChildren)
{
    const auto before = now;
    StartInA(400);
    StartInA(410);
    proc.threads[400] = {.container = "", .parent = shim, .start = before};
    proc.threads[401] = {.container = "", .parent = 400};   // its fork was lost
    proc.threads[410] = {.container = "", .parent = shim};  // another process has the id now
    proc.threads[411] = {.container = "", .parent = 410};
    EXPECT_NE(registry.FindOrLoad(411, Next())->state, State::Inside);
    registry.Resync(Next(), Next());
    EXPECT_EQ(ContainerOf(400), idA);
    EXPECT_EQ(ContainerOf(401), idA);
    EXPECT_EQ(ContainerOf(410), "");
    EXPECT_EQ(ContainerOf(411), "");
}

TEST_F(ContainerRegistryTest, WhatOnlyLooksLikeARuntimeIsBelievedForAShortTime)
{
    proc.threads[400] = {
        .container = idA, .parent = runtime, .runsCopy = true};  // a copy of its parent, which is the host's
    proc.threads[401] = {
        .container = idA, .parent = 402, .runsCopy = true};  // a copy of its parent, which is in the container
    proc.threads[402] = {idA, shim};
    registry.Resync(Engine::ContainerTable::longAgo, now);
    EXPECT_EQ(registry.Find(400)->state, State::Entering);
    EXPECT_EQ(registry.Find(401)->state, State::Inside);
    EXPECT_THAT(registry.PromoteOverdue(now + ContainerRegistry::believeSetUp / 2), ElementsAre());
    EXPECT_THAT(registry.PromoteOverdue(now + ContainerRegistry::believeSetUp), ElementsAre(400));
    EXPECT_EQ(ContainerOf(400), idA);
}

}  // namespace
