// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerRegistry.h"

#include "host/container/RuntimeSetUp.h"
#include "tests/host/container/ContainerFixture.h"

namespace {

using Engine::ContainerRegistry;
using State = ContainerRegistry::State;

using ContainerRegistryTest = ContainerFixture;

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

TEST(ContainerGroupsTest, AnIdBelongsToTheFirstGroupAndItsBettersAlone)
{
    Engine::ContainerGroups groups;
    const auto claim = [&](const std::string& path, unsigned owner = 0, int hierarchy = 0) {
        const auto [id, displaced] = groups.Claim({hierarchy, path, owner});
        return id + (displaced.empty() ? "" : " not " + displaced);
    };
    const std::string own = "/docker/" + idA;
    const std::string fake = "/user.slice/docker-" + idB + ".scope";
    EXPECT_EQ(groups.Find({0, own}), idA) << "by its name alone";
    EXPECT_EQ(claim(own), idA);
    EXPECT_EQ(claim(own, 0, 3), idA) << "another hierarchy";
    EXPECT_EQ(claim("/elsewhere/" + idA), "/elsewhere/" + idA);
    EXPECT_EQ(claim(own + "/" + idB), idB) << "an engine was told to make it there";
    EXPECT_EQ(groups.Find({0, own + "/" + idB + "/sub"}), idB);
    EXPECT_EQ(groups.Find({0, own + "/docker/" + std::string(64, 'c')}), idA) << "what a container makes itself";
    EXPECT_EQ(claim(own + "/init.scope"), idA);
    EXPECT_EQ(claim("/docker/" + idB, 1000), "/docker/" + idB) << "root's group is the better one";
    EXPECT_EQ(claim("/system.slice/docker-" + idB + ".scope"), idB + " not " + own + "/" + idB);
    EXPECT_EQ(groups.Find({0, own + "/" + idB}), own + "/" + idB);
    EXPECT_EQ(claim(fake, 1000, 5), idB);
    EXPECT_EQ(claim("/docker/" + idB, 0, 5), idB + " not " + fake);
    EXPECT_EQ(groups.Adopt({0, "/default/web"}), "web");
    EXPECT_EQ(groups.Adopt({0, "/other/web"}), "/other/web");
    EXPECT_EQ(groups.Find({0, "/default/web/below"}), "web");
    EXPECT_EQ(claim("/default"), "");
    EXPECT_EQ(groups.Adopt({0, "/machine.slice/machine-db.scope/payload"}), "db");
    EXPECT_EQ(groups.Adopt({0, "/machine.slice/systemd-nspawn@ldap.service/payload"}), "ldap");
    EXPECT_EQ(groups.Adopt({0, "/payload"}), "payload");
    EXPECT_EQ(groups.Adopt({0, "/some/group"}, "db2"), "db2") << "as its runtime was told";
    EXPECT_EQ(groups.Adopt({0, "/another/group"}, "db2"), "/another/group");
}

// On a busy machine /proc is read when the helper has been moved, has forked and has ended already. An entry point that
// is named like the runtime's own does not hide by ending at once.
TEST_F(ContainerRegistryTest, SetUpHelperThatHasEndedIsStillTheRuntimeButNotItsChild)
{
    Fork(runtime, 3141);
    Run(3141, idA).namespaces.clear();
    EXPECT_FALSE(Exec(3141, "/dev/fd/6"));
    Attach(runtime, 3141, idA);
    Fork(3141, 3142);
    EXPECT_EQ(ContainerOf(3142), "") << "it is the one that unshares";
    EXPECT_TRUE(Exec(3142, "/bin/sleep"));
    EXPECT_TRUE(Exec(3142, "/proc/self/exe")) << "what is inside stays inside";
    Fork(3141, 3143);
    Run(3143, idA).namespaces.clear();
    EXPECT_TRUE(Exec(3143, "/dev/fd/5"));
}

TEST_F(ContainerRegistryTest, ChildThatIsBornInsideTheGroupNeedsNoAttachEvent)
{
    Exec(shell, "/proc/self/exe");
    Run(400, idA, shell).namespaces["mnt"] = "host";
    Fork(shell, 400);
    EXPECT_EQ(registry.Find(400)->state, State::Entering);
    EXPECT_FALSE(Exec(400, "/proc/self/fd/9"));
    Run(400, idA, shell);
    EXPECT_TRUE(Exec(400, "/proc/self/exe")) << "an entry point that is named like the runtime's own";

    // A runtime that does not execute itself: seen at the exec.
    Fork(runtime, 401);
    Run(401, idB, runtime);
    EXPECT_EQ(ContainerOf(401), "");
    EXPECT_TRUE(Exec(401, "/entry"));
    EXPECT_EQ(ContainerOf(401), idB);
}

TEST_F(ContainerRegistryTest, ContainerCannotMoveItselfOutButTheHostCan)
{
    StartInA(400);
    Fork(400, 401);  // a thread
    Fork(400, 402);  // a process
    Run(400, "", shim);
    Attach(400, 400, "");
    Attach(401, 400, idB);
    EXPECT_EQ(ContainerOf(400), idA);

    Run(400, idB, shim).threads = {401};
    Run(401, idB);
    Run(402, idA);
    Attach(shell, 400, idB);
    EXPECT_EQ(ContainerOf(401), idB) << "threads move with their leader";
    EXPECT_EQ(ContainerOf(402), idA);
    Attach(shell, 400, "");  // one hierarchy of several
    EXPECT_EQ(ContainerOf(400), idB);
    Run(400, "", shim);
    Attach(shell, 400, "");
    EXPECT_EQ(ContainerOf(400), "");
}

TEST_F(ContainerRegistryTest, ReusedIdIsTheNewProcessAndALateReaderIsToldWhatHeldAtItsEventsTime)
{
    Fork(shim, 400);
    Attach(runtime, 400, idA);
    const auto setUp = Next();
    Exec(400, "/bin/sh");
    EXPECT_EQ(ContainerOf(400, setUp), "");
    const auto running = Next();
    Exit(400);
    EXPECT_EQ(ContainerOf(400), idA) << "what is asked about the dead lags behind";
    Fork(shell, 400);
    EXPECT_EQ(ContainerOf(400, running), idA);
    EXPECT_EQ(ContainerOf(400, Next()), "");
    EXPECT_EQ(ContainerOf(400), "");
    Purge();
    EXPECT_NE(registry.Find(400), nullptr) << "the new one does not go with the old one's exit";
    Exit(400);
    const auto born = Next();
    Exit(401);
    registry.ApplyFork(shell, 401, born);  // comes after the exit
    StartInA(402);
    Fork(402, 403);
    Exit(402);  // a leader that has ended before its threads, one of which takes over its id
    registry.ApplyExec(*registry.DecideExec(402, 403, "/bin/other", Next()), "/bin/other", Next());
    EXPECT_EQ(registry.Find(403), nullptr);
    Purge();
    EXPECT_EQ(registry.Find(400), nullptr);
    EXPECT_EQ(registry.Find(401), nullptr);
    EXPECT_EQ(ContainerOf(402), idA);
}

TEST_F(ContainerRegistryTest, ProcCorrectsWhatWasLostButWhatMovedItselfOutStaysInsideAndSoDoItsChildren)
{
    const auto before = now;
    StartInA(401);  // its exit was lost
    Fork(runtime, 402);
    Attach(runtime, 402, idA);
    Run(402, idA, shim);                  // its exec was lost
    Run(403, idB, shim).threads = {404};  // its fork was lost
    StartInA(405);
    Run(405, "", shim).start = before;  // moved itself out
    Run(406, "", 405);                  // its fork was lost
    StartInA(407);
    Run(407, "", shim);  // another process has the id now
    Run(408, "", 407);
    EXPECT_NE(registry.FindOrLoad(408, Next())->state, State::Inside);
    const auto lost = now;
    registry.Resync(Next(), Next());
    EXPECT_EQ(ContainerOf(404, lost), "");
    for (const auto& [pid, id] :
         std::map<int, std::string>{{402, idA}, {404, idB}, {405, idA}, {406, idA}, {407, ""}, {408, ""}}) {
        EXPECT_EQ(ContainerOf(pid), id) << pid;
    }
    Purge();
    EXPECT_EQ(registry.Find(401), nullptr);
}

TEST_F(ContainerRegistryTest, GroupsThatRuntimesFilledBeforeTheStartAreContainersWhateverTheyAreCalled)
{
    struct Row {
        int pid, parent;
        const char *group, *mounts, *executable, *container;
    };
    const Row rows[] = {
        {90, 1, "/engine", "host", "/usr/bin/containerd-shim-runc-v2 (deleted)", ""},
        {91, 90, "/default/web", "own", "/bin/sh", "web"},
        {92, 91, "/default/web/below", "own", "/bin/sh", "web"},
        {93, 90, "/default/web", "host", "/usr/bin/runc", "web"},  // its exec is under way
        {94, 93, "/default/web", "host", "/proc/self/exe", "web"},
        {95, 1, "/machine/os/init.scope", "own", "/lib/systemd/systemd", "os"},
        {96, 95, "/machine/os/system.slice/x", "own", "/bin/x", "os"},
        {97, shell, "/sandbox", "own", "/bin/browser", ""},
        {98, 90, "/shared", "own", "/bin/sh", ""},
        {99, shell, "/shared/below", "host", "/bin/sh", ""},
        {110, shell, "/session", "host", "/", ""},  // crun
        {111, 110, "/session", "own", "/bin/sh", ""},
        {112, 110, "/other", "own", "/bin/sh", "other"},
    };
    for (const Row& row : rows) {
        Support::FakeSystem::Process& process = Run(row.pid, row.group, row.parent);
        process.executable = row.executable;
        process.name = row.executable == std::string{"/"} ? "crun run" : "sh";
        process.namespaces["mnt"] = row.mounts;
    }
    Engine::ContainerTable later;
    Engine::ContainerGroups unclaimed;
    ContainerRegistry started{later, unclaimed, proc};
    started.Resync(Engine::ContainerTable::longAgo, now);
    for (const Row& row : rows) {
        EXPECT_TRUE(Engine::ContainerTable::Same(started.Find(row.pid)->container, row.container)) << row.pid;
    }
}

TEST_F(ContainerRegistryTest, WhatOnlyLooksLikeARuntimeIsBelievedForAShortTime)
{
    Run(runtime, "").executable = Run(400, idA, runtime).executable = "/runtime";  // its parent is the host's
    Run(402, idA, shim).executable = Run(401, idA, 402).executable = "/copy";      // its parent is in the container
    registry.Resync(Engine::ContainerTable::longAgo, now);
    EXPECT_EQ(registry.Find(400)->state, State::Entering);
    EXPECT_EQ(registry.Find(401)->state, State::Inside);
    EXPECT_THAT(registry.PromoteOverdue(now + Engine::ProcSync::believeSetUp / 2), testing::ElementsAre());
    EXPECT_THAT(registry.PromoteOverdue(now + Engine::ProcSync::believeSetUp), testing::ElementsAre(400));
    EXPECT_EQ(ContainerOf(400), idA);
    EXPECT_FALSE(Call(400)) << "what it did before, while the agent stood still";
    Exec(400, "/bin/sh");
    EXPECT_TRUE(Call(400)) << "likewise, but it is the container's program";
}

}  // namespace
