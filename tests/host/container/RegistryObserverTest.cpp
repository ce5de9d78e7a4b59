// SPDX-License-Identifier: Apache-2.0
#include "host/container/RegistryObserver.h"

#include <optional>
#include <random>
#include <set>

#include "tests/host/container/ContainerFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Excludes what it is told to, of the processes that are in.
struct ListFilter final : Engine::SyscallFilter {
    bool IsExcluded(int process) const override { return !in.contains(process); }
    std::optional<Ticket> TicketOf(int process) const override
    {
        return in.contains(process) ? std::optional{static_cast<Ticket>(process)} : std::nullopt;
    }
    void Exclude(int process, Ticket ticket) override { in.erase(ticket == Ticket(process) ? process : -1); }
    std::optional<std::uint64_t> TakeInitialCgroup(int process) override
    {
        const auto made = cgroups.extract(process);
        return made ? std::optional{made.mapped()} : std::nullopt;
    }
    std::set<int> in;
    std::map<int, std::uint64_t> cgroups;
};

class RegistryObserverTest : public ContainerFixture {
protected:
    ListFilter filter;
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
    EXPECT_EQ(sequencer.last.ppid, shim);
    EXPECT_EQ(sequencer.last.executable, "/usr/bin/a-long-program-name");
    EXPECT_EQ(sequencer.last.name, "a-long-program-");
    EXPECT_TRUE(Call(400));
    EXPECT_EQ(start(401, "mnt:[8]"), "mnt:[7]");
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400", "+401"));
    Exit(400);
    Exit(401);
    EXPECT_EQ(start(402, "mnt:[9]"), "mnt:[9]") << "the container was started again";
}

TEST_F(RegistryObserverTest, TheHostIsExcludedWithItsAncestorsAndNothingElse)
{
    filter.in = {shim, runtime, shell, 301, 302, 400, 401, 402, 403};
    sequencer.filter = &filter;
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
    EXPECT_THAT(filter.in, ElementsAre(shim, runtime, 400, 401, 402, 403));
    now += Engine::RegistryObserver::resyncPause;
    observer.OnLoss(sequencer);
    Round();
    EXPECT_THAT(filter.in, ElementsAre(400, 401, 402, 403)) << "what /proc shows needs no call to be excluded";

    Run(301, idA, shell);
    EXPECT_FALSE(Exec(301, "/bin/sh")) << "/proc is not read for a process that is excluded";
    filter.in.insert(301);
    EXPECT_TRUE(Exec(301, "/bin/sh"));
}

TEST_F(RegistryObserverTest, NoEndIsTooEarlyForAProcessThatWasMadeInAContainersGroup)
{
    filter.in = {400, 401, 402};
    filter.cgroups = {{400, 7}, {402, 8}};
    proc.cgroups[7] = idA;
    sequencer.filter = &filter;
    Register();
    Fork(runtime, 400);  // /proc has none of them any more
    Fork(400, 401);
    EXPECT_EQ(ContainerOf(401), "") << "it still sets up";
    EXPECT_TRUE(Exec(401, "/bin/sh"));
    EXPECT_EQ(sequencer.last.containerId, idA);
    EXPECT_TRUE(Call(401));
    Fork(runtime, 402);
    EXPECT_FALSE(Exec(402, "/bin/sh")) << "a group that is no container's";
}

TEST_F(RegistryObserverTest, StopNoticesGoToAnIdThatTheHostTakesAndToWhatLeavesItsContainer)
{
    Register();
    StartInA(400);
    for (const int pid : {401, 402, 403}) {
        Fork(400, pid);
        Exit(pid);
    }
    sequencer.Take();
    Fork(400, 403);   // another process, of the same container
    Fork(shim, 402);  // another one, of the host
    EXPECT_THAT(sequencer.Take(), ElementsAre("-402"));
    const auto origin = Call(400);
    Attach(shim, 400, idB);
    EXPECT_NE(Call(400), origin);
    EXPECT_EQ(sequencer.last.containerId, idB);
    EXPECT_THAT(sequencer.Take(), testing::IsSupersetOf({"-400", "-401", "-403", "+400"}));
}

// A file notification names the process, whose own thread may never make a watched call. A fork may be an event that a
// receiver does not get yet.
TEST_F(RegistryObserverTest, WhatOtherSourcesOrForksShowIsAnnouncedAndAQuestionIsNot)
{
    StartInA(400);
    Register();
    EXPECT_EQ(ContainerOf(400), idA);
    EXPECT_THAT(sequencer.Take(), IsEmpty());
    observer.OnActivity(400, sequencer);
    observer.OnActivity(shell, sequencer);
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400"));
    sequencer.hasSubscribed = false;
    Fork(400, 401);
    EXPECT_THAT(sequencer.Take(), ElementsAre("+401"));
    Exit(400);
    LoseMessage();
    Round();
    EXPECT_THAT(sequencer.Take(), testing::UnorderedElementsAre("-400", "-401"));
    observer.OnActivity(400, sequencer);
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400")) << "the notification comes late";
}

// Its image may be one whose processes a receiver refuses; it did not, as long as the fork was what told of them.
TEST_F(RegistryObserverTest, WhatAForkMadeKnownIsAnnouncedAgainWithoutItsImage)
{
    cache.Put({idA, "", "", "quiet:1", {}, {}});
    const auto imageTold = [&](int pid) {
        receivers.Remove(task);
        Register();
        EXPECT_TRUE(Call(pid));
        return sequencer.last.pid == pid ? sequencer.last.imageName : "not announced";
    };
    StartInA(400);
    EXPECT_EQ(imageTold(400), "quiet:1");
    Fork(400, 401);
    EXPECT_EQ(imageTold(400), "");
    EXPECT_EQ(imageTold(401), "");
}

// With far more live threads than a receiver's table holds, with many short-lived ones, with a receiver that is slow,
// one that loses messages, and one that ends with messages in its queue and comes back with its table: no call of a
// container's thread ever reaches a receiver that does not know the thread, unless a loss has just been suffered.
class BoundedTableTest : public ContainerFixture {
protected:
    std::size_t Pick(std::size_t below) { return random() % below; }

    void Step(int step)
    {
        const std::size_t choice = Pick(10);
        const bool isBusy = choice >= 7 && step % 20 != 0;
        const std::size_t one = Pick(isBusy ? std::min<std::size_t>(live.size(), 40) : live.size());
        if (choice < 4) {
            Fork(live[one], 2000 + step);
            live.push_back(2000 + step);
        } else if (choice < 7 && live.size() > (step < 30000 ? 900U : 50U)) {
            Exit(live[one]);
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(one));
        } else {
            const std::size_t before = sequencer.notices.size();
            ASSERT_TRUE(Call(live[one]));
            repeated += isBusy ? sequencer.notices.size() - before : 0;
            sequencer.Handle();
            ASSERT_TRUE(hasLost || sequencer.table.contains(live[one])) << "step " << step;
            ++calls;
        }
    }

    // What is under way is lost: the receiver's queue refused it, or the receiver ended with it and comes back.
    void Disturb()
    {
        sequencer.queue.clear();
        hasLost = true;
        if (Pick(2) == 0) {
            LoseMessage();
        } else {
            receivers.Remove(task);
            receivers.Add(task);
        }
    }

    std::mt19937 random{42};
    std::vector<int> live{1000};
    std::size_t calls = 0;
    std::size_t repeated = 0;  // notices that a busy thread's call gave rise to
    bool hasLost = false;      // since the last round
};

TEST_F(BoundedTableTest, NoCallIsEverUnknownToAReceiver)
{
    Register();
    StartInA(1000);
    for (int step = 0; step < 60000; ++step) {
        sequencer.isStalled = step % 700 > 300;
        ASSERT_NO_FATAL_FAILURE(Step(step));
        ASSERT_TRUE(hasLost || sequencer.table.size() <= 640U) << "one more, and the receiver forgets all that live";
        if (step > 20000 && step % 700 == 690) {
            Disturb();
        }
        if (step % 50 == 0) {
            Round();
            sequencer.Handle();
            hasLost = false;
        }
    }
    EXPECT_GT(calls, 15000U);
    EXPECT_LT(repeated, calls / 4) << "busy threads are not announced over and over";
}

}  // namespace
