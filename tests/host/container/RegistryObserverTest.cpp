// SPDX-License-Identifier: Apache-2.0
#include "host/container/RegistryObserver.h"

#include <array>
#include <random>
#include <span>

#include "host/ftrace/TraceBarrier.h"
#include "tests/host/container/ContainerFixture.h"

namespace {

using testing::ElementsAre;

// With a filter that excludes what it is told to, of the processes that are recorded.
class RegistryObserverTest : public ContainerFixture, public Engine::SyscallFilter {
protected:
    Engine::SyscallFilter* Filter() override { return recorded.empty() ? nullptr : this; }
    bool IsExcluded(int process) const override { return !recorded.contains(process); }
    std::optional<Ticket> TicketOf(int process) const override
    {
        return IsExcluded(process) ? std::nullopt : std::optional{static_cast<Ticket>(process)};
    }
    void Exclude(int process, Ticket ticket) override { recorded.erase(process == ticket ? process : -1); }

    std::vector<Listed> List(const Given& numbers) override
    {
        EXPECT_LE(numbers.except.size(), mostExcept);
        std::vector<Listed> listed;
        for (const int pid : proc.Processes()) {
            const auto of = proc.Cgroups(pid);
            const auto stat = proc.StatOf(pid);
            if (!of || !stat) {
                continue;
            }
            const std::uint64_t groups = std::hash<std::string>{}(of->front().path);
            const auto number = numbers.numbers.find(groups);
            if (number != numbers.numbers.end() && std::count(numbers.except.begin(), numbers.except.end(), pid) == 0) {
                auto& its = kept[pid].number;
                its = its == 0 ? number->second : its;
            }
            listed.push_back({pid, pid, stat->parent, groups, stat->started, kept[pid]});
        }
        return listed;
    }
    std::uint32_t NewIdentity() override { return 77; }

    std::set<int> recorded;
    std::map<int, Engine::ProcessIdentity> kept{{500, {9}}, {505, {9, true}}};
};

TEST_F(RegistryObserverTest, FirstProcessIsAnnouncedAtTheExecThatEndsTheSetUpAndSetsTheNamespaces)
{
    // As the engine says, whose process may have left its namespaces by then.
    const Engine::ContainerInfo said{idA, "", "", "", {{"mnt", "mnt:[6]"}}, {}};
    cache.Put(said);
    const auto start = [&](int pid, const char* mounts) {
        Run(pid, idA, shim).namespaces["mnt"] = mounts;
        Fork(shim, pid);
        Attach(runtime, pid, idA);
        EXPECT_FALSE(Call(pid)) << "the runtime's own calls";
        Exec(pid, "/usr/bin/a-long-program-name");
        cache.Put(said);
        return cache.Find(idA)->namespaces.at("mnt");
    };
    Register();
    EXPECT_EQ(start(400, "mnt:[7]"), "mnt:[7]");
    EXPECT_EQ(last.ppid, shim);
    EXPECT_EQ(last.executable + " " + last.name, "/usr/bin/a-long-program-name a-long-program-");
    EXPECT_TRUE(Call(400));
    EXPECT_EQ(start(401, "mnt:[8]"), "mnt:[7]");
    EXPECT_THAT(Notices(), ElementsAre("+400", "+401"));
    Exit(400);
    Exit(401);
    EXPECT_EQ(start(402, "mnt:[9]"), "mnt:[9]") << "the container was started again";
}

TEST_F(RegistryObserverTest, AnIdIsItsNextBearersAlsoWhenThatForkWasNotTold)
{
    Register();
    for (const int pid : {400, 401}) {
        StartInA(pid);
        EXPECT_TRUE(Call(pid));
        Exit(pid);
    }
    Run(400, "");
    Run(401, idB);
    EXPECT_FALSE(Call(400)) << "a process of the host";
    EXPECT_TRUE(Call(401));
    EXPECT_EQ(ContainerOf(401), idB);
    EXPECT_THAT(Notices(), ElementsAre("+400", "+401", "-400", "-401", "+401"));
}

TEST_F(RegistryObserverTest, TheHostIsExcludedWithItsAncestorsAndNothingElse)
{
    recorded = {shim, runtime, shell, 301, 302, 400, 401, 402, 403};
    Register();
    Run(301, "", shell);
    Run(302, "", 301);
    Fork(shell, 301);
    Fork(301, 302);
    Call(302);
    StartInA(400);
    Run(400, idA);
    Fork(shim, 401);
    Attach(runtime, 401, idA);  // still the runtime
    Fork(shim, 402);
    Run(402, idA);    // in the container already by what /proc says, which is ahead of the events
    Fork(shim, 403);  // gone: another process may have its id by now
    for (const int pid : {400, 401, 402, 403}) {
        Call(pid);
    }
    EXPECT_THAT(recorded, ElementsAre(runtime, 400, 401, 402, 403));
    now += Engine::RegistryObserver::resyncPause;
    observer.OnLoss(*this);
    Round();
    EXPECT_THAT(recorded, ElementsAre(400, 401, 402, 403)) << "what /proc shows needs no call to be excluded";

    Run(301, idA, shell);
    recorded.insert(301);
    EXPECT_TRUE(Exec(301, "/bin/sh"));
}

TEST_F(RegistryObserverTest, ProgramsThatLookLikeARuntimeTakeNoIdentityFromOtherContainers)
{
    for (int pid = 600; pid <= 600 + static_cast<int>(mostExcept); ++pid) {
        Run(pid, pid == 600 ? idA : idA + "/" + std::to_string(pid), shim).executable = "/memfd:x (deleted)";
        recorded.insert(pid);
    }
    Run(503, idB);
    Run(504, idA);
    recorded.insert({503, 504});
    now += Engine::RegistryObserver::resyncPause;
    observer.OnLoss(*this);
    Round();
    EXPECT_EQ(kept[503].number, 77U);
    EXPECT_EQ(kept[600].number, 0U) << "it may be the runtime";
}

// Of the host's processes nothing is recorded. What comes into a container's group brings what is to be known of it.
TEST_F(RegistryObserverTest, ARuntimeThatWasNotFollowedIsKnownAtTheMove)
{
    proc.cgroups[7] = "/docker/" + idA;
    const auto move = [this](int pid, int group, const char* executed) {
        Observe(Move(runtime, pid)
                    .Number("dst_id", group)
                    .Number("parent", shim)
                    .Text("executed", executed)
                    .Number("born_in_setup", pid == 402));
    };
    move(400, 7, "/proc/self/exe");  // /proc has none of them any more
    Fork(400, 401);
    EXPECT_EQ(ContainerOf(401), "") << "it still sets up";
    now += Engine::ProcSync::believeSetUp;
    Round();
    EXPECT_EQ(ContainerOf(401), "") << "however long it takes";
    EXPECT_TRUE(Exec(401, "/bin/sh"));
    EXPECT_EQ(ContainerOf(401), idA);
    EXPECT_EQ(registry.Find(400)->parent, shim);

    Observe(Move(runtime, 403).Text("dst_path", "/docker/" + idB).Number("parent", shim).Number("identity", 9));
    recorded = {500, 501, 503, 505};
    Run(503, idA);    // it is older than the agent
    Run(500, "", 1);  // its forks were lost, and it has left its control groups and its parent
    EXPECT_TRUE(Call(501, {9})) << "has gone";
    EXPECT_FALSE(Call(502, {10})) << "no container's";
    EXPECT_FALSE(Call(506, {9, true})) << "the runtime, which has gone";
    Run(505, idB);
    now += Engine::RegistryObserver::resyncPause;
    observer.OnLoss(*this);
    Round();
    EXPECT_EQ(ContainerOf(500) + ContainerOf(501), idB + idB);
    now += Engine::ProcSync::believeSetUp;
    Round();
    EXPECT_EQ(ContainerOf(505), "") << "the kernel knows it to be in set-up, however long that takes";
    EXPECT_EQ(kept[503].number, 77U);
    EXPECT_TRUE(Call(504, {77})) << "a child that inherits what it was given";
    proc.cgroups[8] = "/default/web";
    Run(404, "/default/web");
    move(404, 8, "/proc/self/exe");
    Fork(404, 405);
    Run(405, "/default/web");
    EXPECT_TRUE(Exec(405, "/bin/sh")) << "whatever the group is called";
    EXPECT_EQ(ContainerOf(405), "web");
    Run(406, "/system.slice/x.service");
    proc.cgroups[9] = "/system.slice/x.service";
    move(406, 9, "/bin/x");
    EXPECT_FALSE(Exec(406, "/bin/y")) << "not by a runtime";
    proc.cgroups[8] = "/";
    move(402, 8, "");
    EXPECT_FALSE(Exec(402, "/bin/sh")) << "a group that is no container's";
    move(402, 7, "/proc/self/fd/6");  // the id's next process
    EXPECT_TRUE(Exec(402, "/dev/fd/7")) << "an entry point that has gone and is named like a runtime's";
}

// A container that forks like a storm has exits and forks that are not told, and its ids are used again.
TEST_F(RegistryObserverTest, AnIdentityTellsAnIdsBearersApartWhenNeitherAnEndNorAForkWasTold)
{
    const auto move = [this](int pid, const std::string& id, unsigned int identity, unsigned int before) {
        Observe(Move(runtime, pid)
                    .Text("dst_path", "/docker/" + id)
                    .Number("parent", shim)
                    .Text("executed", "/proc/self/exe")
                    .Number("identity", identity)
                    .Number("identity_before", before));
    };
    const auto start = [&](int pid, const std::string& id) {
        const auto identity = static_cast<std::uint32_t>(pid);
        move(pid, id, identity, 0);
        observer.OnEvent(Support::Exec(pid, "/bin/x").Number("old_pid", pid).Message(Next()), {pid, {identity}}, *this);
        EXPECT_TRUE(Call(pid, {identity}));
    };
    Register();
    start(400, idA);
    start(401, idA);
    start(403, idB);
    EXPECT_TRUE(Call(402, {401})) << "a child";
    EXPECT_TRUE(Call(404, {401})) << "a child";
    EXPECT_FALSE(Call(403, {403, true})) << "recorded before the exec: what /proc says is ahead";
    EXPECT_TRUE(Call(403, {403})) << "although no exec is told of";
    Notices();

    move(400, idB, 9, 0);
    EXPECT_FALSE(Call(400, {9, true})) << "a runtime's process that has an id of container a's";
    EXPECT_EQ(ContainerOf(400), "");
    EXPECT_TRUE(Call(402, {403}));
    EXPECT_EQ(ContainerOf(402), idB) << "a child of container b with an id of a's";
    EXPECT_EQ(last.containerId, idB);
    Run(404, "");
    EXPECT_FALSE(Call(404)) << "a process of the host with an id of a's";
    EXPECT_TRUE(Call(404, {403})) << "a child of container b with an id that was the host's";
    EXPECT_THAT(Notices(), ElementsAre("-400", "-402", "+402", "-404", "+404"));
    for (const auto& [pid, start] : {std::pair{405, 0}, {406, 1'000'000'000}}) {
        Run(pid, idA).start = std::chrono::seconds{start};
        EXPECT_TRUE(Call(pid)) << "its identity could not be had";
        move(pid, idB, static_cast<unsigned int>(pid), 0);
    }
    EXPECT_TRUE(Call(405, {405, true})) << "the host moves what is inside";
    EXPECT_FALSE(Call(406, {406, true})) << "a runtime's process that has the id of one whose end was not told";
    move(401, idB, 10, 401);
    EXPECT_TRUE(Call(401, {10, true})) << "the host moves what is inside";
    EXPECT_EQ(ContainerOf(401), idB);
}

TEST_F(RegistryObserverTest, StopNoticesGoToAnIdThatTheHostTakesAndToWhatLeavesItsContainer)
{
    Register();
    StartInA(400);
    for (const int pid : {401, 402, 403}) {
        Fork(400, pid);
        Exit(pid);
    }
    Notices();
    Fork(400, 403);   // another process, of the same container
    Fork(shim, 402);  // another one, of the host
    EXPECT_THAT(Notices(), ElementsAre("-402"));
    const auto origin = Call(400);
    Attach(shim, 400, idB);
    EXPECT_NE(Call(400), origin);
    EXPECT_EQ(last.containerId, idB);
    EXPECT_THAT(Notices(), testing::IsSupersetOf({"-400", "-401", "-403", "+400"}));
}

// A file notification names the process, whose own thread may never make a watched call. A fork may be an event that a
// receiver does not get yet. The image may be one whose first processes a receiver refuses, but it knows what forked.
TEST_F(RegistryObserverTest, WhatOtherSourcesOrForksShowIsAnnouncedAndAQuestionIsNot)
{
    cache.Put({idA, "", "", "quiet:1", {}, {}});
    StartInA(400);
    Register();
    EXPECT_EQ(ContainerOf(400), idA);
    EXPECT_THAT(Notices(), ElementsAre());
    observer.OnActivity(std::array{400, shell}, *this);
    EXPECT_THAT(Notices(), ElementsAre("+400"));
    EXPECT_EQ(last.imageName, "quiet:1");
    hasSubscribed = false;
    Fork(400, 401);
    EXPECT_THAT(Notices(), ElementsAre("+401"));
    EXPECT_EQ(last.imageName, "");
    Exit(400);
    LoseMessage();
    Round();
    EXPECT_THAT(Notices(), testing::UnorderedElementsAre("-400", "-401"));
    observer.OnActivity(std::array{400}, *this);
    EXPECT_THAT(Notices(), ElementsAre("+400")) << "the notification comes late";
    EXPECT_EQ(last.imageName, "");
    std::vector<int> ended(3 * Engine::TraceBarrier::mostActive);  // more than a generation takes
    for (int& pid : ended) {
        pid = 500 + static_cast<int>(&pid - ended.data());
        Fork(401, pid);
        Exit(pid);
    }
    LoseMessage();
    Round();
    for (std::size_t first = 0; first < ended.size(); first += 200) {
        const std::span reported = std::span{ended}.subspan(first).first(
            std::min(ended.size() - first, Engine::TraceBarrier::mostActive));  // some of them a second time
        observer.OnActivity(reported, *this);
        EXPECT_TRUE(std::all_of(reported.begin(), reported.end(), [&](int pid) { return known.contains(pid); }));
    }
}

// With far more live threads than a receiver's table holds, with many short-lived ones, with a receiver that is slow,
// one that loses messages, and one that ends with messages in its queue and comes back with its table: no call of a
// container's thread ever reaches a receiver that does not know the thread, unless a loss has just been suffered.
using BoundedTableTest = ContainerFixture;
TEST_F(BoundedTableTest, NoCallIsEverUnknownToAReceiver)
{
    std::mt19937 random{42};
    const auto pick = [&](std::size_t below) {
        return static_cast<std::ptrdiff_t>(random() % below);
    };
    std::vector<int> live{1000};
    std::size_t calls = 0;
    std::size_t repeated = 0;  // notices that a busy thread's call gave rise to
    bool hasLost = false;      // since the last round
    Register();
    StartInA(1000);
    for (int step = 0; step < 60000; ++step) {
        isStalled = step % 700 > 300;
        const auto choice = pick(10);
        const bool isBusy = choice >= 7 && step % 20 != 0;
        const auto one = live.begin() + pick(isBusy ? std::min<std::size_t>(live.size(), 40) : live.size());
        if (choice < 4) {
            Fork(*one, 2000 + step);
            live.push_back(2000 + step);
        } else if (choice < 7 && live.size() > (step < 30000 ? 900U : 50U)) {
            Exit(*one);
            live.erase(one);
        } else {
            const std::size_t before = notices.size();
            ASSERT_TRUE(Call(*one));
            repeated += isBusy ? notices.size() - before : 0;
            Handle();
            ASSERT_TRUE(hasLost || known.contains(*one)) << "step " << step;
            ++calls;
        }
        ASSERT_TRUE(hasLost || known.size() <= 640U) << "one more, and the receiver forgets all that live";
        if (step > 20000 && step % 700 == 690) {
            // What is under way is lost: the receiver's queue refused it, or the receiver ended with it and comes back.
            queue.clear();
            hasLost = true;
            if (pick(2) == 0) {
                LoseMessage();
            } else {
                receivers.Remove(task);
                receivers.Add(task);
            }
        }
        if (step % 50 == 0) {
            Round();
            Handle();
            hasLost = false;
        }
    }
    EXPECT_GT(calls, 15000U);
    EXPECT_LT(repeated, calls / 4) << "busy threads are not announced over and over";
}

}  // namespace
