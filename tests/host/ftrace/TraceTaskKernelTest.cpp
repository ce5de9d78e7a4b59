// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>

#include "framework/Engine.h"
#include "host/ftrace/FtraceModule.h"
#include "host/ftrace/TraceObserver.h"
#include "host/ftrace/TracefsCalls.h"
#include "host/ftrace/TracefsInstance.h"
#include "host/sdk/Counters.h"
#include "tests/host/ftrace/TraceFixtures.h"
#include "tests/support/MustRun.h"

namespace Engine {
namespace {

using Testing::CollectingTask;
using Testing::SeenEvent;
using Events = std::vector<SeenEvent>;

class TraceTaskTest : public testing::Test {
protected:
    void SetUp() override
    {
        CE_REQUIRE(::geteuid() == 0 && CeTracefsDirectory() != nullptr, "needs root and tracefs");
        ASSERT_TRUE(engine.AddModule(std::make_unique<FtraceModule>()));
        auto task = std::make_unique<CollectingTask>("subscriber_task");
        subscriber = task.get();
        ASSERT_TRUE(engine.AddModule(std::make_unique<Testing::TaskModule>(std::move(task))));
    }

    int Subscribe(const std::string& system, const std::string& event) { return Send(system, event, false); }
    int Withdraw(const std::string& system, const std::string& event) { return Send(system, event, true); }

    int Send(const std::string& system, const std::string& event, bool unwatch)
    {
        constexpr long timeoutMs = 10'000;
        std::string reply;
        return subscriber->SyncSendDirectMsg("ftrace_task", new FtraceWatchMessage{subscriber, system, event, unwatch},
                                             reply, timeoutMs, 2);
    }

    // As the kernel's own file says.
    static bool IsRecorded(const std::string& event)
    {
        std::string state;
        std::getline(std::ifstream{std::string{CeTracefsDirectory()} + "/instances/" + TracefsInstance::OwnName() +
                                   "/events/" + event + "/enable"},
                     state);
        return state == "1";
    }

    static auto OwnCalls(std::size_t count)
    {
        return [count](const Events& events) {
            return static_cast<std::size_t>(std::count_if(events.begin(), events.end(), [](const SeenEvent& event) {
                       return event.pid == ::gettid();
                   })) >= count;
        };
    }

    Framework::Engine engine;
    CollectingTask* subscriber = nullptr;  // the framework's
};

TEST_F(TraceTaskTest, RecordsAnEventUntilItsLastWithdrawal)
{
    EXPECT_EQ(Subscribe("sched", "sched_process_fork"), 0);
    EXPECT_EQ(Subscribe("sched", "sched_process_fork"), 0);
    EXPECT_TRUE(IsRecorded("sched/sched_process_fork"));
    EXPECT_EQ(Withdraw("sched", "sched_process_fork"), 0);
    EXPECT_TRUE(IsRecorded("sched/sched_process_fork"));
    EXPECT_EQ(Withdraw("sched", "sched_process_fork"), 0);
    EXPECT_FALSE(IsRecorded("sched/sched_process_fork"));
}

TEST_F(TraceTaskTest, RefusesWhatIsNoEvent)
{
    EXPECT_NE(Subscribe("syscalls", "sys_enter_always,exit -S madvise -S ptrace"), 0);
    EXPECT_NE(Subscribe("syscalls", "../../sched/sched_process_fork"), 0);
    EXPECT_NE(Subscribe("syscalls", "sys_enter_no_such_call"), 0);
    EXPECT_NE(Subscribe("sched", ""), 0);
}

// With a pause before, so that the event comes while the trace task sleeps: it must be woken by this one event.
TEST_F(TraceTaskTest, DeliversALoneEventUnderItsSubscribedName)
{
    ASSERT_EQ(Subscribe("syscalls", "sys_enter_umount2"), 0);
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    ::umount2("/nowhere/at/all", 0);
    ASSERT_TRUE(subscriber->WaitFor(OwnCalls(1)));
    const auto after = std::chrono::steady_clock::now().time_since_epoch();

    for (const SeenEvent& event : subscriber->Events()) {
        EXPECT_EQ(event.name, "syscalls:sys_enter_umount2");
        EXPECT_GE(event.when, before);
        EXPECT_LE(event.when, after);
    }
}

TEST_F(TraceTaskTest, DeliversForkExecAndExitOfAProcessInThatOrder)
{
    for (const char* event : {"sched_process_fork", "sched_process_exec", "sched_process_exit"}) {
        ASSERT_EQ(Subscribe("sched", event), 0);
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/true", "true", nullptr);
        ::_exit(1);
    }
    ::waitpid(child, nullptr, 0);
    const auto ofChild = [child](const SeenEvent& event) {
        return event.pid == child;
    };
    ASSERT_TRUE(subscriber->WaitFor(
        [&](const Events& events) { return std::count_if(events.begin(), events.end(), ofChild) >= 2; }));

    Events events = subscriber->Events();
    EXPECT_TRUE(std::is_sorted(events.begin(), events.end(),
                               [](const SeenEvent& a, const SeenEvent& b) { return a.when < b.when; }));
    std::erase_if(events, [&](const SeenEvent& event) {
        return event.pid != child && !(event.pid == ::gettid() && event.name == "sched:sched_process_fork");
    });
    EXPECT_THAT(events, testing::ElementsAre(testing::Field(&SeenEvent::name, "sched:sched_process_fork"),
                                             testing::Field(&SeenEvent::name, "sched:sched_process_exec"),
                                             testing::Field(&SeenEvent::name, "sched:sched_process_exit")));
}

TEST_F(TraceTaskTest, CountsEveryEventOfAStorm)
{
    constexpr std::uint64_t written = 200'000;
    const auto before = SDK::Counters::Snapshot();
    ASSERT_EQ(Subscribe("syscalls", "sys_enter_sched_get_priority_min"), 0);
    for (std::uint64_t i = 0; i < written; ++i) {
        ::syscall(SYS_sched_get_priority_min, 0);
    }
    engine.Stop();

    const auto after = SDK::Counters::Snapshot();
    const auto value = [&](const char* name) {
        const auto earlier = before.find(name);
        return after.at(name) - (earlier != before.end() ? earlier->second : 0);
    };
    const auto read = value(SDK::CounterName::traceRead);
    EXPECT_EQ(read + value(SDK::CounterName::traceLostOverrun) + value(SDK::CounterName::traceLostDropped), written);
    EXPECT_EQ(value(SDK::CounterName::traceDelivered) + value(SDK::CounterName::traceLostQueue) +
                  value(SDK::CounterName::traceShed) + value(SDK::CounterName::traceUnwanted),
              read);
    EXPECT_EQ(value(SDK::CounterName::traceLate), 0U);
}

// Sees every fork, admits the system calls of nobody.
class RefusingObserver : public TraceObserver {
public:
    std::vector<std::pair<std::string, std::string>> ObservedEvents() const override
    {
        return {{"sched", "sched_process_exit"}, {"sched", "no_such_event"}};
    }
    void OnEvent(const FtraceMessage& event, TraceSequencer& /*sequencer*/) override
    {
        exits += event.name() == "sched:sched_process_exit" ? 1 : 0;
    }
    Origin AdmitSyscall(int /*tid*/, const FtraceMessage& /*event*/, TraceSequencer& /*sequencer*/) override
    {
        return notAdmitted;
    }
    void OnRound(std::chrono::nanoseconds now, TraceSequencer& /*sequencer*/) override
    {
        const std::lock_guard lock{mutex};
        observedUntil = now;
        changed.notify_all();
    }
    void OnLoss(TraceSequencer& /*sequencer*/) override {}

    // Until everything that has happened by now was observed.
    bool CatchUp()
    {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        std::unique_lock lock{mutex};
        return changed.wait_for(lock, std::chrono::seconds{20}, [&] { return observedUntil > now; });
    }

    std::atomic<int> exits{0};

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::chrono::nanoseconds observedUntil{0};
};

TEST_F(TraceTaskTest, AsksItsObserverAboutSystemCallsUntilItIsRemoved)
{
    auto* observable = dynamic_cast<TraceObservable*>(engine.FindTask("ftrace_task"));
    ASSERT_NE(observable, nullptr);
    RefusingObserver observer;
    ASSERT_TRUE(observable->AddObserver(observer));
    EXPECT_FALSE(observable->AddObserver(observer)) << "there is one already";
    ASSERT_EQ(Subscribe("syscalls", "sys_enter_sched_get_priority_min"), 0);

    ::syscall(SYS_sched_get_priority_min, 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(observer.CatchUp());
    EXPECT_GE(observer.exits, 1);

    observable->RemoveObserver(observer);
    EXPECT_FALSE(IsRecorded("sched/sched_process_exit"));
    ::syscall(SYS_sched_get_priority_min, 0);
    ASSERT_TRUE(subscriber->WaitFor(OwnCalls(1)));
    EXPECT_EQ(subscriber->Events().size(), 1U) << "the first call was not admitted";
}

}  // namespace
}  // namespace Engine
