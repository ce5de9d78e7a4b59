// SPDX-License-Identifier: Apache-2.0
#include "host/container/RegistryObserver.h"

#include <gmock/gmock.h>

#include <random>
#include <string>
#include <vector>

#include "tests/host/container/FakeProc.h"
#include "tests/host/container/ReceiverTable.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/TraceEventBuilder.h"

namespace {

using Engine::ContainerProcMessage;
using Engine::ContainerRegistry;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int shim = 100;
constexpr int runtime = 200;

class ReceivingTask : public Framework::Task {
public:
    ReceivingTask() : Task("receiver", "", Framework::TaskCondition::EventLoop, 1) {}
};

// Keeps what is sent and passes it on to a table such as the detection task's, at once.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the contract's destructor is protected
class Sequencer final : public Engine::TraceSequencer {
public:
    void SendInOrder(Framework::Task& /*target*/, std::shared_ptr<Framework::Message> message) override
    {
        const auto& notice = dynamic_cast<const ContainerProcMessage&>(*message);
        const int pid = notice.info->pid;
        notices.push_back((notice.started ? "+" : "-") + std::to_string(pid));
        last = *notice.info;
        ++sent;
        if (notice.started) {
            table.OnStart(pid, second);
        } else {
            table.OnStop(pid);
        }
    }
    std::vector<std::string> Take() { return std::exchange(notices, {}); }

    ReceiverTable table;
    long second = 0;
    std::vector<std::string> notices;
    ContainerProcMessage::ProcInfo last;
    std::size_t sent = 0;
};

class RegistryObserverTest : public testing::Test {
protected:
    RegistryObserverTest()
    {
        proc.threads[shim].hasHostMounts = true;
        proc.threads[runtime].hasHostMounts = true;
        Round();
    }

    void Register()
    {
        receivers.Add(task);
        Round();
        now += Engine::RegistryObserver::settling;
    }
    void Round()
    {
        Tick();
        observer.OnRound(now, sequencer);
    }
    void Tick(std::chrono::nanoseconds step = std::chrono::milliseconds{1})
    {
        now += step;
        sequencer.second = std::chrono::duration_cast<std::chrono::seconds>(now).count();
    }

    // What the trace task does: the observer first, then the receiver.
    void Observe(Support::TraceEvent event)
    {
        Tick();
        observer.OnEvent(event.At(now).Message(), sequencer);
    }
    void Fork(int parent, int child)
    {
        Observe(Support::Fork(parent, "sh", child));
        std::string id;
        if (registry.ContainerOf(parent, id) == 0 && !id.empty()) {
            sequencer.table.OnFork(parent, child, sequencer.second);
        }
    }
    void Exec(int pid, const std::string& file) { Observe(Support::Exec(pid, file).Number("old_pid", pid)); }
    void Exit(int pid)
    {
        Observe(Support::Exit(pid));
        sequencer.table.OnExit(pid, sequencer.second);
    }
    void Attach(int mover, int pid, const std::string& path)
    {
        Observe(Support::TraceEvent("cgroup", "cgroup_attach_task")
                    .Number("common_pid", mover)
                    .Number("pid", pid)
                    .Text("dst_path", path));
    }
    // Zero: not admitted.
    Engine::TraceObserver::Origin Call(int tid)
    {
        Tick();
        auto event = Support::Syscall(tid, "mount");
        return observer.AdmitSyscall(tid, event.At(now).Message(), sequencer);
    }
    void StartInA(int pid)
    {
        Fork(shim, pid);
        Attach(runtime, pid, GroupOf(idA));
        Exec(pid, "/usr/bin/a-long-program-name");
    }

    Support::FakeSystem world;
    FakeProc proc;
    Engine::MetadataCache cache;
    ContainerRegistry registry{proc};
    Engine::NoticeReceivers receivers;
    Engine::RegistryObserver observer{registry, proc, receivers, cache};
    Sequencer sequencer;
    ReceivingTask task;
    std::chrono::nanoseconds now = std::chrono::seconds{1000};
};

TEST_F(RegistryObserverTest, FirstProcessIsAnnouncedAtTheExecThatEndsTheSetUp)
{
    Engine::ContainerInfo info;
    info.id = idA;
    info.imageName = "bb:1";
    cache.Put(info);
    world.Put(400, {{shim, "x"}, "", "", {{"mnt", "mnt:[7]"}}});
    Register();
    Fork(shim, 400);
    Attach(runtime, 400, GroupOf(idA));
    EXPECT_FALSE(Call(400)) << "the runtime's own calls";
    EXPECT_THAT(sequencer.Take(), IsEmpty());
    Exec(400, "/usr/bin/a-long-program-name");
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400"));
    EXPECT_EQ(sequencer.last.containerId, idA);
    EXPECT_EQ(sequencer.last.ppid, shim);
    EXPECT_EQ(sequencer.last.executable, "/usr/bin/a-long-program-name");
    EXPECT_EQ(sequencer.last.name, "a-long-program-");
    EXPECT_EQ(sequencer.last.imageName, "bb:1");
    EXPECT_EQ(cache.Find(idA)->namespaces.at("mnt"), "mnt:[7]");
    EXPECT_TRUE(Call(400));
    EXPECT_THAT(sequencer.Take(), IsEmpty());
}

TEST_F(RegistryObserverTest, OnlyTheFirstProcessSetsTheContainersNamespaces)
{
    const auto start = [this](int pid, const char* mounts) {
        world.Put(pid, {{shim, "x"}, "", "", {{"mnt", mounts}}});
        StartInA(pid);
    };
    Engine::ContainerInfo info;
    info.id = idA;
    cache.Put(info);
    start(400, "mnt:[7]");
    start(401, "mnt:[8]");
    EXPECT_EQ(cache.Find(idA)->namespaces.at("mnt"), "mnt:[7]");
    Exit(400);
    Exit(401);
    start(402, "mnt:[9]");  // the container was started again
    EXPECT_EQ(cache.Find(idA)->namespaces.at("mnt"), "mnt:[9]");
}

TEST_F(RegistryObserverTest, ArrivingReceiverLearnsWhatRunsAndThreadsWhenTheyAct)
{
    proc.threads[400] = {idA, shim, false, false, {401}};
    now += std::chrono::seconds{2};
    observer.OnLoss(sequencer);
    Round();
    Register();
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400"));
    EXPECT_EQ(sequencer.last.executable, "/proc-knows/sh");
    EXPECT_TRUE(Call(401));
    EXPECT_THAT(sequencer.Take(), ElementsAre("+401"));
    EXPECT_EQ(sequencer.last.ppid, 400);
    EXPECT_FALSE(Call(shim));
    receivers.Remove(task);
    StartInA(500);
    EXPECT_THAT(sequencer.Take(), IsEmpty());
}

// A file notification names the process, whose own thread may never make a watched call.
TEST_F(RegistryObserverTest, ProcessThatSomebodyAsksAboutIsAnnouncedSoon)
{
    int wakes = 0;
    registry.SetWake([&wakes] { ++wakes; });
    StartInA(400);
    receivers.Add(task);
    Round();
    std::string id;
    registry.ContainerOf(400, id);
    registry.ContainerOf(400, id);
    EXPECT_EQ(wakes, 1);
    EXPECT_THAT(sequencer.Take(), IsEmpty());
    Round();
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400"));
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

TEST_F(RegistryObserverTest, StopNoticesFollowTheDead)
{
    Register();
    StartInA(400);
    Fork(400, 401);
    Fork(400, 402);
    Exit(401);
    Exit(402);
    sequencer.Take();
    Fork(shim, 402);
    EXPECT_THAT(sequencer.Take(), ElementsAre("-402")) << "before a host process is taken for the container's";
    now += Engine::NoticeLedger::graceAfterExit;
    Round();
    EXPECT_THAT(sequencer.Take(), ElementsAre("-401"));
    Attach(shim, 400, GroupOf(idB));
    EXPECT_THAT(sequencer.Take(), ElementsAre("-400"));
    const auto origin = Call(400);
    EXPECT_THAT(sequencer.Take(), ElementsAre("+400"));
    EXPECT_EQ(sequencer.last.containerId, idB);
    StartInA(500);
    Fork(500, 501);
    EXPECT_EQ(Call(500), Call(501)) << "one container, one origin";
    EXPECT_NE(Call(500), origin);
}

TEST_F(RegistryObserverTest, WhatDiedWhileNobodyListenedIsWithdrawnFromTheOneWhoComesBack)
{
    Register();
    StartInA(400);
    StartInA(401);
    receivers.Remove(task);
    Exit(400);
    Exit(401);
    Fork(shim, 401);
    Attach(runtime, 401, GroupOf(idB));
    Exec(401, "/bin/b");
    sequencer.Take();
    proc.threads[401] = {idB, shim};
    Register();
    EXPECT_THAT(sequencer.Take(), ElementsAre("-401", "+401"));
    Round();
    EXPECT_THAT(sequencer.Take(), ElementsAre("-400"));
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

// What the scheme is for: with far more live threads than a receiver's table holds, and with many short-lived ones,
// no call of a container's thread ever reaches a receiver that does not know the thread.
TEST_F(RegistryObserverTest, NoCallIsEverUnknownToABoundedTable)
{
    Register();
    StartInA(1000);
    std::vector<int> live{1000};
    std::mt19937 random{42};
    int next = 2000;
    std::size_t calls = 0;
    std::size_t repeated = 0;  // notices that a busy thread's call gave rise to
    for (int step = 0; step < 60000; ++step) {
        const int choice = static_cast<int>(random() % 10);
        const std::size_t any = random() % live.size();
        const std::size_t busy = random() % std::min<std::size_t>(live.size(), 40);
        if (choice < 4) {
            Fork(live[any], next);
            live.push_back(next++);
        } else if (choice < 7 && live.size() > (step < 30000 ? 900U : 50U)) {
            Exit(live[any]);
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(any));
        } else {
            const bool isBusy = step % 20 != 0;
            const int tid = live[isBusy ? busy : any];
            const std::size_t before = sequencer.sent;
            ASSERT_TRUE(Call(tid));
            repeated += isBusy ? sequencer.sent - before : 0;
            ASSERT_TRUE(sequencer.table.Knows(tid)) << "step " << step;
            ++calls;
        }
        ASSERT_LE(sequencer.table.Size(), 641U);
        if (step % 50 == 0) {
            Round();
        }
    }
    EXPECT_GT(calls, 15000U);
    EXPECT_LT(repeated, calls / 10) << "busy threads are not announced over and over";
}

}  // namespace
