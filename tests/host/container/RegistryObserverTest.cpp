// SPDX-License-Identifier: Apache-2.0
#include "host/container/RegistryObserver.h"

#include <optional>
#include <random>
#include <set>

#include "tests/host/container/ContainerFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RegistryObserverTest : public ContainerFixture {
protected:
    void Register()
    {
        receivers.Add(task);
        Round();
        now += Engine::RegistryObserver::settling;
    }
};

TEST_F(RegistryObserverTest, FirstProcessIsAnnouncedAtTheExecThatEndsTheSetUpAndSetsTheNamespaces)
{
    Engine::ContainerInfo said;  // by the engine, whose process may have left its namespaces by then
    said.id = idA;
    said.namespaces = {{"mnt", "mnt:[6]"}};
    cache.Put(said);
    const auto start = [&](int pid, const char* mounts) {
        world.Put(pid, {{shim, "x"}, "", "", {{"mnt", mounts}}});
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

// Takes out whom it is told to, of those that are in.
struct ListFilter final : Engine::SyscallFilter {
    bool IsLeftOut(int process) const override { return !in.contains(process); }
    std::optional<Ticket> TicketOf(int process) const override
    {
        return in.count(process) != 0 ? std::optional<Ticket>{static_cast<Ticket>(process)} : std::nullopt;
    }
    void LeaveOut(int process, Ticket ticket) override
    {
        EXPECT_EQ(ticket, process);
        in.erase(process);
    }
    std::optional<std::uint64_t> TakeBirthGroup(int process) override
    {
        const auto born = groups.extract(process);
        return born ? std::optional{born.mapped()} : std::nullopt;
    }
    std::set<int> in;
    std::map<int, std::uint64_t> groups;
};

TEST_F(RegistryObserverTest, TheHostIsLeftOutWithItsForebearsAndNobodyElse)
{
    ListFilter filter;
    filter.in = {shim, runtime, shell, 301, 302, 400, 401, 402};
    sequencer.filter = &filter;
    Register();
    proc.threads[301].parent = shell;
    proc.threads[302].parent = 301;
    Fork(shell, 301);
    Fork(301, 302);
    Call(302);
    EXPECT_THAT(filter.in, ElementsAre(shim, runtime, 400, 401, 402));

    StartInA(400);
    proc.threads[400].container = idA;
    Fork(shim, 401);
    Attach(runtime, 401, idA);  // still the runtime
    proc.threads[402].container = idA;
    Fork(shim, 402);  // in the container already by what /proc says, which is ahead of the events
    for (const int pid : {400, 401, 402}) {
        Call(pid);
    }
    EXPECT_THAT(filter.in, ElementsAre(shim, runtime, 400, 401, 402));

    proc.threads.erase(402);  // gone: its id may be anybody's by now
    Call(402);
    EXPECT_TRUE(filter.in.contains(402));
    observer.OnLoss(sequencer);
    Round();
    EXPECT_THAT(filter.in, ElementsAre(400, 401, 402)) << "who is seen in /proc needs no call to be left out";

    proc.threads[301].container = idA;
    EXPECT_FALSE(Exec(301, "/bin/sh")) << "/proc is not read for one who is left out";
    filter.in.insert(301);
    EXPECT_TRUE(Exec(301, "/bin/sh"));
}

TEST_F(RegistryObserverTest, NoEndIsTooEarlyForAProcessThatWasMadeInAContainersGroup)
{
    ListFilter filter;
    filter.in = {400, 401, 402};
    filter.groups = {{400, 7}, {402, 8}};
    proc.groups[7] = idA;
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

TEST_F(RegistryObserverTest, StopNoticesFollowTheDead)
{
    Register();
    StartInA(400);
    for (const int pid : {401, 402, 403}) {
        Fork(400, pid);
        Exit(pid);
    }
    sequencer.Take();
    Fork(400, 403);  // lives again
    Fork(shim, 402);
    EXPECT_THAT(sequencer.Take(), ElementsAre("-402")) << "before a host process is taken for the container's";
    now += Engine::NoticeLedger::graceAfterExit;
    Round();
    EXPECT_THAT(sequencer.Take(), ElementsAre("-401"));
    const auto origin = Call(400);
    Attach(shim, 400, idB);
    EXPECT_NE(Call(400), origin);
    EXPECT_EQ(sequencer.last.containerId, idB);
    EXPECT_THAT(sequencer.Take(), ElementsAre("-400", "+400"));
}

TEST_F(RegistryObserverTest, WhatDiedWhileNobodyListenedIsWithdrawnFromTheOneWhoComesBack)
{
    Register();
    StartInA(400);
    StartInA(401);
    receivers.Remove(task);
    Exit(400);
    Exit(401);
    StartInA(401);
    proc.threads[401] = {idA, shim};
    sequencer.Take();
    Register();
    EXPECT_THAT(sequencer.Take(), ElementsAre("-401", "+401"));
    Round();
    EXPECT_THAT(sequencer.Take(), ElementsAre("-400"));
}

TEST_F(RegistryObserverTest, AStopNoticeThatFindsNobodyIsUnheard)
{
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    info->pid = 400;
    receivers.SendStop(sequencer, info);
    EXPECT_THAT(receivers.TakeUnheard(), ElementsAre(400));
}

// A file notification names the process, whose own thread may never make a watched call.
TEST_F(RegistryObserverTest, ProcessThatSomebodyAsksAboutIsAnnouncedSoon)
{
    int wakes = 0;
    registry.SetWake([&wakes] { ++wakes; });
    StartInA(400);
    receivers.Add(task);
    Round();
    ContainerOf(400);
    ContainerOf(400);
    EXPECT_EQ(wakes, 1);
    EXPECT_THAT(sequencer.Take(), IsEmpty());
    Round();
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400"));
    Exit(400);
    now += Engine::NoticeLedger::graceAfterExit;
    Round();
    ContainerOf(400);
    Round();
    EXPECT_THAT(sequencer.Take(), ElementsAre("-400", "+400")) << "the notification comes late";
    now += Engine::NoticeLedger::graceAfterExit;
    Round();
    EXPECT_THAT(sequencer.Take(), ElementsAre("-400"));
}

TEST_F(RegistryObserverTest, ForkThatANewReceiverMayHaveMissedIsMadeUpFor)
{
    StartInA(400);
    receivers.Add(task);
    Round();
    Observe(Support::Fork(400, "sh", 401));  // the receiver has not subscribed yet
    sequencer.Take();
    EXPECT_TRUE(Call(401));
    EXPECT_THAT(sequencer.Take(), ElementsAre("+401"));
}

// Its image may be one whose processes a receiver refuses; it did not, as long as the fork was what told of them.
TEST_F(RegistryObserverTest, WhatAForkMadeKnownIsAnnouncedAgainWithoutItsImage)
{
    Engine::ContainerInfo info;
    info.id = idA;
    info.imageName = "quiet:1";
    cache.Put(info);
    const auto imageTold = [&](int pid) {
        receivers.Remove(task);
        Register();  // nobody is known any more
        EXPECT_TRUE(Call(pid));
        return sequencer.last.pid == pid ? sequencer.last.imageName : "not announced";
    };
    StartInA(400);
    EXPECT_EQ(imageTold(400), "quiet:1");
    Fork(400, 401);
    EXPECT_EQ(imageTold(400), "");
    EXPECT_EQ(imageTold(401), "");
}

TEST_F(RegistryObserverTest, AfterALossInTheReceiversQueueEverybodyIsAnnouncedAgain)
{
    Register();
    StartInA(400);
    sequencer.Take();
    while (task.LostEvents() == 0) {
        std::shared_ptr<Framework::Message> message = std::make_shared<Framework::Message>();
        task.EnqueueMsg(message);
    }
    Round();
    EXPECT_TRUE(Call(400));
    EXPECT_TRUE(Call(400));
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400"));
}

// Stop notices that are lost make a receiver's table grow until it forgets everybody, also those it knew for certain.
TEST_F(RegistryObserverTest, ATableThatOverflowedIsFilledAgainAndStaysBelowItsLimit)
{
    Register();
    StartInA(400);
    sequencer.isFull = true;
    for (int child = 1000; child < 2000; ++child) {
        Fork(400, child);  // forks come through, as they may when the queue is emptied now and then
    }
    sequencer.isFull = false;
    for (int child = 1999; child >= 1000; --child) {
        Round();
        Call(child);
        ASSERT_EQ(sequencer.table.count(child), 1U) << child;
    }
    EXPECT_LE(sequencer.table.size(), Engine::NoticeLedger::limit);
}

// What the scheme is for: with far more live threads than a receiver's table holds, and with many short-lived ones,
// no call of a container's thread ever reaches a receiver that does not know the thread.
TEST_F(RegistryObserverTest, NoCallIsEverUnknownToABoundedTable)
{
    Register();
    StartInA(1000);
    std::vector<int> live{1000};
    std::mt19937 random{42};
    std::size_t calls = 0;
    std::size_t repeated = 0;  // notices that a busy thread's call gave rise to
    for (int step = 0; step < 60000; ++step) {
        const std::size_t choice = random() % 10;
        const bool isBusy = choice >= 7 && step % 20 != 0;
        const std::size_t one = random() % (isBusy ? std::min<std::size_t>(live.size(), 40) : live.size());
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
            ASSERT_EQ(sequencer.table.count(live[one]), 1U) << "step " << step;
            ++calls;
        }
        ASSERT_LE(sequencer.table.size(), 640U) << "one more, and the detection task forgets all that live";
        if (step % 50 == 0) {
            Round();
        }
    }
    EXPECT_GT(calls, 15000U);
    EXPECT_LT(repeated, calls / 10) << "busy threads are not announced over and over";
}

}  // namespace
