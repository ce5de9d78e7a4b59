// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventDelivery.h"

#include <gmock/gmock.h>

#include <array>
#include <deque>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/ftrace/SubscriptionTable.h"
#include "host/sdk/Counters.h"
#include "host/sdk/TraceTime.h"
#include "tests/support/PageBuilder.h"

namespace Engine {
namespace {

using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t forkId = 1;
constexpr std::uint16_t callId = 2;
constexpr std::uint16_t otherCallId = 3;

constexpr int failingPid = -1;  // on its events the receiver fails
constexpr int slowPid = -2;     // on its events the receiver takes long
constexpr int hostPid = 7;      // its calls are not admitted

KnownEvent Event(std::uint16_t id, const std::string& system, const std::string& event)
{
    return {id, event, EventKind{system, event, {{"common_pid", 4, 4, true, EventKind::Shape::Number}}}};
}

// What reached a task: event and pid, or the text of another message.
class Receiver : public Framework::Task, public AbstractMessage<FtraceMessage>::Receiver {
public:
    explicit Receiver(const std::string& name) : Task(name, "", Framework::TaskCondition::EventLoop, 4) {}

    int Receive(const FtraceMessage& event) override
    {
        const auto pid = event.get_number("common_pid");
        if (pid == failingPid) {
            throw std::runtime_error{"no such process"};
        }
        std::this_thread::sleep_for(nanoseconds{pid == slowPid ? 1000000 : 0});
        EXPECT_EQ(SDK::TraceTime::Current(), event.When());
        seen.push_back(event.Kind().Event() + " " + std::to_string(pid));
        return 0;
    }
    int HandleMsg(const Framework::Message* /*message*/) override
    {
        EXPECT_FALSE(SDK::TraceTime::Current());
        seen.emplace_back("notice");
        return 0;
    }

    std::vector<std::string> seen;
};

// Announces each event to the task. Each thread is a container of its own.
class Observer : public TraceObserver {
public:
    explicit Observer(Framework::Task& task) : task(task) {}
    std::vector<std::pair<std::string, std::string>> ObservedEvents() const override { return {}; }
    void OnEvent(const FtraceMessage& event, TraceSequencer& sequencer) override
    {
        EXPECT_TRUE(sequencer.GetsEvent(task));
        seen.push_back(event.get_number("common_pid"));
        sequencer.SendInOrder(task, std::make_shared<Framework::CmdMessage>("", ""));
    }
    Origin AdmitSyscall(int tid, int /*process*/, const FtraceMessage& /*event*/,
                        TraceSequencer& /*sequencer*/) override
    {
        return tid == hostPid ? notAdmitted : static_cast<Origin>(tid);
    }
    void OnActivity(int pid, TraceSequencer& sequencer) override
    {
        EXPECT_FALSE(sequencer.GetsEvent(task)) << "no event is being observed";
        seen.push_back(pid);
        sequencer.SendInOrder(task, std::make_shared<Framework::CmdMessage>("", ""));
    }
    void OnRound(nanoseconds now, TraceSequencer& /*sequencer*/) override { rounds.push_back(now); }
    void OnLoss(TraceSequencer& /*sequencer*/) override { seen.push_back(lossMark); }

    static constexpr std::int64_t lossMark = -1;
    std::vector<nanoseconds> rounds;
    std::vector<std::int64_t> seen;

private:
    Framework::Task& task;
};

class EventDeliveryTest : public testing::Test {
protected:
    void Record(std::uint16_t id, int pid, bool afterLoss = false)
    {
        const Support::Bytes bytes = Support::Record(id, pid);
        delivery.OnRecord({bytes.data(), static_cast<std::uint32_t>(bytes.size()), id, afterLoss, ++clock, 0});
    }

    void Handle()
    {
        for (const auto& [task, message] : std::exchange(queue, {})) {
            message->MessageHandle(static_cast<Framework::Task*>(task == first.name() ? &first : &second));
        }
    }

    void Finish()
    {
        delivery.EndRound({});
        Handle();
    }

    // Returns how many of the calls were not excluded.
    std::uint64_t Offer(std::uint16_t id, int container, std::uint64_t calls)
    {
        const std::uint64_t before = counts.shed;
        for (std::uint64_t i = 0; i < calls; ++i) {
            Record(id, container);
        }
        delivery.EndRound({});
        return calls - (counts.shed - before);
    }

    const KnownEvent fork = Event(forkId, "sched", "fork");
    const KnownEvent call = Event(callId, "syscalls", "sys_enter_call");
    const KnownEvent otherCall = Event(otherCallId, "syscalls", "sys_enter_other");
    const KnownEvent alias = Event(callId, "syscalls", "sys_enter_alias");
    Receiver first{"first"};
    Receiver second{"second"};
    Observer observer{first};
    TraceCounts counts;
    std::vector<unsigned long> batches;  // events of each; of another message one
    std::vector<std::pair<std::string, std::unique_ptr<Framework::Message>>> queue;
    Sending answer = Sending::Accepted;
    const TraceOutlet outlet{nullptr,
                             [this](const std::string& task, std::unique_ptr<Framework::Message> message) {
                                 batches.push_back(message->EventCount());
                                 if (answer == Sending::Accepted) {
                                     queue.emplace_back(task, std::move(message));
                                 }
                                 return answer;
                             },
                             &counts};
    SubscriptionTable table{outlet};
    EventDelivery delivery{table, outlet};
    std::uint64_t clock = 0;
};

TEST_F(EventDeliveryTest, GivesEachSubscriberItsEventsOnceAndInOrder)
{
    table.Add(first, fork);
    table.Add(first, fork);
    table.Add(first, call);
    table.Add(second, alias);
    Record(forkId, 10);
    Record(callId, 11);
    Record(99, 12);
    Record(forkId, 13);
    Finish();
    EXPECT_THAT(first.seen, ElementsAre("fork 10", "sys_enter_call 11", "fork 13"));
    EXPECT_THAT(second.seen, ElementsAre("sys_enter_alias 11")) << "under the name that it asked for";

    first.seen.clear();
    batches.clear();
    for (int pid = failingPid; pid < 599; ++pid) {
        Record(forkId, pid);
    }
    Finish();
    EXPECT_THAT(batches, ElementsAre(EventBatch::maxEvents, 600 - EventBatch::maxEvents));
    EXPECT_EQ(first.seen.size(), 599U);
    EXPECT_EQ(first.seen.back(), "fork 598");
}

TEST_F(EventDeliveryTest, AContainerGetsItsShareOfASlowSubscriberUntilThatHasCaughtUp)
{
    constexpr int loud = 1;
    constexpr int quiet = 2;
    delivery.SetObserver(&observer);
    table.Add(first, call);
    table.Add(first, otherCall);
    Record(callId, slowPid);
    Finish();
    const std::uint64_t admitted = Offer(callId, loud, 100000);
    EXPECT_GE(admitted, 301U) << "too few for the detector that counts calls";
    EXPECT_LE(admitted, TraceSubscriberQueue::leastRoom + EventBatch::maxEvents);
    EXPECT_EQ(Offer(callId, quiet, 10), 10U);
    EXPECT_EQ(Offer(otherCallId, loud, 10), 10U) << "a flood of one call hid another of the same container";
    std::deque<KnownEvent> kinds;
    std::uint64_t ofManyKinds = 0;
    for (std::uint16_t id = otherCallId + 1; id < 30; ++id) {
        table.Add(first, kinds.emplace_back(Event(id, "syscalls", "sys_enter_another")));
        ofManyKinds += Offer(id, loud, 3000);
    }
    EXPECT_LE(ofManyKinds, TraceSubscriberQueue::leastRoom) << "many floods are no way around";
    queue.clear();
    delivery.EndRound({});
    EXPECT_EQ(Offer(callId, loud, 400), 400U);
}

// Reports a process when the observer has seen the events, sends behind these events.
class Barrier : public TraceBarrier {
public:
    using TraceBarrier::TraceBarrier;
    void OnObserved(const ReportActive& reportActive) override { reportActive(4711); }
    void OnFlushed(const MessageSender& send) override
    {
        send("first", std::make_unique<Framework::CmdMessage>("", ""));
    }
};

TEST_F(EventDeliveryTest, ABarrierComesBehindTheEventsUntilItsTimeAndBehindWhatItsReportGaveRiseTo)
{
    delivery.SetObserver(&observer);
    table.Add(first, fork);
    for (const int when : {2, 4}) {
        delivery.Take(std::make_shared<Barrier>(nanoseconds{when}));
    }
    Record(forkId, 1);
    delivery.EndRound(nanoseconds{1});
    EXPECT_THAT(batches, ElementsAre(1U)) << "no barrier has been reached";
    Record(forkId, 1);
    Record(forkId, 1);
    delivery.EndRound(nanoseconds{3});
    EXPECT_THAT(batches, ElementsAre(1U, 3U, 1U)) << "two events and the observer's message, then the barrier's";
    EXPECT_TRUE(delivery.HasBarriers());
    delivery.EndRound(nanoseconds{4});
    EXPECT_THAT(batches, ElementsAre(1U, 3U, 1U, 1U, 1U));
    EXPECT_FALSE(delivery.HasBarriers());
}

TEST_F(EventDeliveryTest, PutsAnObserversMessagesBetweenTheEventsAndDropsWhatItDoesNotAdmit)
{
    delivery.SetObserver(&observer);
    table.Observe(fork);
    table.Add(first, fork);
    table.Add(first, call);
    Record(forkId, hostPid);
    Record(callId, hostPid);
    Record(forkId, 3, true);
    Record(callId, 3);
    Finish();
    EXPECT_THAT(first.seen, ElementsAre("notice", "fork 7", "notice", "fork 3", "sys_enter_call 3"));
    EXPECT_THAT(batches, ElementsAre(5U)) << "many notices must not fill a queue that counts messages";
    EXPECT_THAT(observer.seen, ElementsAre(7, Observer::lossMark, 3)) << "the loss before what followed it";

    first.seen.clear();
    for (unsigned long sent = 0; sent <= EventBatch::maxEvents; ++sent) {
        delivery.SendInOrder(first, std::make_shared<Framework::CmdMessage>("", ""));
    }
    delivery.SendInOrder(second, std::make_shared<Framework::CmdMessage>("", ""));  // which gets no events
    Finish();
    EXPECT_EQ(first.seen.size(), EventBatch::maxEvents + 1);
    EXPECT_THAT(second.seen, ElementsAre("notice"));
}

// One subscriber, and all that may become of its events, in any order.
TEST_F(EventDeliveryTest, CountsEveryEventOnce)
{
    const auto total = [](const char* name) {
        return SDK::Counters::Snapshot()[name];
    };
    const std::uint64_t before = total(SDK::CounterName::traceDelivered);
    const std::uint64_t callsBefore = total(SDK::CounterName::callsDelivered);
    std::minstd_rand random;
    delivery.SetObserver(&observer);
    for (int step = 0; step < 3000; ++step) {
        const auto dice = random() % 32;
        if (dice < 4) {
            table.Add(first, fork);
            table.Add(first, call);
        } else if (dice < 5) {
            table.Remove(&first);
        } else if (dice < 9) {
            answer = std::array{Sending::Accepted, Sending::Accepted, Sending::Refused, Sending::Gone}[random() % 4];
        } else if (dice < 10) {
            Handle();
        } else if (dice < 12) {
            queue.clear();  // the subscriber has stopped
        } else {
            for (auto events = random() % 3000; events > 0; --events) {
                Record(random() % 4 == 0 ? forkId : callId, static_cast<int>(random() % 10));
            }
            delivery.EndRound({});
        }
    }
    Finish();
    delivery.EndRound({});
    const std::uint64_t delivered = total(SDK::CounterName::traceDelivered) - before;
    const std::uint64_t calls = total(SDK::CounterName::callsDelivered) - callsBefore;
    for (const std::uint64_t count :
         {delivered, counts.notContainer, counts.shed, counts.lostQueue, counts.unwanted, calls, counts.callsRefused}) {
        EXPECT_GT(count, 10000U);
    }
    EXPECT_EQ(counts.read, delivered + counts.notContainer + counts.shed + counts.lostQueue + counts.unwanted);
    EXPECT_EQ(counts.callsRead, calls + counts.notContainer + counts.shed + counts.callsRefused);
}

TEST_F(EventDeliveryTest, TableCountsUsersOfAnEventUnderAllItsNames)
{
    EXPECT_TRUE(table.Add(first, call));
    EXPECT_FALSE(table.Add(first, call));
    EXPECT_FALSE(table.Add(second, alias));
    EXPECT_FALSE(table.Observe(call));
    EXPECT_THAT(table.Remove(&second, &call), IsEmpty()) << "never subscribed under that name";
    EXPECT_THAT(table.Remove(&first, &call), IsEmpty());
    EXPECT_EQ(table.Queues().size(), 2U) << "subscribed twice, withdrawn once";
    EXPECT_THAT(table.Remove(&first, &call), IsEmpty());
    EXPECT_EQ(table.Queues().size(), 1U);
    EXPECT_THAT(table.StopObserving(), IsEmpty()) << "there is the other name";
    EXPECT_THAT(table.Remove(&second), ElementsAre(&alias));
}

}  // namespace
}  // namespace Engine
