// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventDelivery.h"

#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/ftrace/SubscriptionTable.h"
#include "host/sdk/Counters.h"
#include "host/sdk/TraceTime.h"
#include "tests/host/ftrace/PageBuilder.h"

namespace Engine {
namespace {

using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t forkId = 1;
constexpr std::uint16_t callId = 2;

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
        if (pid < 0) {
            throw std::runtime_error{"no such process"};
        }
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

// Announces each event to the task, admits no system call of one thread.
class Observer : public TraceObserver {
public:
    explicit Observer(Framework::Task& task) : task(task) {}
    std::vector<std::pair<std::string, std::string>> ObservedEvents() const override { return {}; }
    void OnEvent(const FtraceMessage& event, TraceSequencer& sequencer) override
    {
        seen.push_back(event.get_number("common_pid"));
        sequencer.SendInOrder(task, std::make_shared<Framework::CmdMessage>("", ""));
    }
    Origin AdmitSyscall(int tid, int /*process*/, const FtraceMessage& /*event*/,
                        TraceSequencer& /*sequencer*/) override
    {
        return tid == refusedTid ? notAdmitted : static_cast<Origin>(tid);
    }
    void OnRound(nanoseconds now, TraceSequencer& /*sequencer*/) override { rounds.push_back(now); }
    void OnLoss(TraceSequencer& /*sequencer*/) override { seen.push_back(lossMark); }

    static constexpr std::int64_t lossMark = -1;
    static constexpr int refusedTid = 7;
    std::vector<nanoseconds> rounds;
    std::vector<std::int64_t> seen;

private:
    Framework::Task& task;
};

class EventDeliveryTest : public testing::Test {
protected:
    void Record(std::uint16_t id, int pid, bool afterLoss = false) { RecordFor(delivery, id, pid, afterLoss); }

    void RecordFor(EventDelivery& to, std::uint16_t id, int pid, bool afterLoss = false)
    {
        const Testing::Bytes bytes = Testing::Record(id, pid);
        to.OnRecord({bytes.data(), static_cast<std::uint32_t>(bytes.size()), id, afterLoss, ++clock, 0});
    }

    static std::uint64_t Delivered() { return SDK::Counters::Get(SDK::CounterName::traceDelivered); }

    void Finish()
    {
        delivery.EndRound({});
        for (auto* task : {&first, &second}) {
            task->BulkConsumeMsg(1000);
        }
    }

    const KnownEvent fork = Event(forkId, "sched", "fork");
    const KnownEvent call = Event(callId, "syscalls", "sys_enter_call");
    const KnownEvent alias = Event(callId, "syscalls", "sys_enter_alias");
    Receiver first{"first"};
    Receiver second{"second"};
    Observer observer{first};
    SubscriptionTable table;
    std::vector<unsigned long> batches;  // events of each; of another message one
    EventDelivery delivery{
        table, nullptr, [this](const std::string& task, std::unique_ptr<Framework::Message> message) {
            batches.push_back(message->EventCount());
            std::shared_ptr<Framework::Message> shared = std::move(message);
            return (task == first.name() ? first : second).EnqueueMsg(shared) == 0 ? Sending::Accepted
                                                                                   : Sending::Refused;
        }};
    std::uint64_t clock = 0;
};

TEST_F(EventDeliveryTest, GivesEachSubscriberItsEventsOnceAndInOrder)
{
    const std::uint64_t before = Delivered();
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
    EXPECT_EQ(Delivered() - before, 4U);
}

TEST_F(EventDeliveryTest, SendsFullBatchesAndGoesOnAfterAnEventOnWhichTheReceiverFails)
{
    table.Add(first, fork);
    for (int pid = -1; pid < 599; ++pid) {
        Record(forkId, pid);
    }
    Finish();
    EXPECT_THAT(batches, ElementsAre(EventBatch::maxEvents, 600 - EventBatch::maxEvents));
    EXPECT_EQ(first.seen.size(), 599U);
    EXPECT_EQ(first.seen.back(), "fork 598");
}

TEST_F(EventDeliveryTest, CountsWhatAFullQueueRefuses)
{
    table.Add(first, fork);
    for (int round = 0; round < 6; ++round) {  // the queue takes four
        Record(forkId, 1);
        Record(forkId, 2);
        delivery.EndRound({});
    }
    const DeliverySums sums = delivery.TakeSums();
    EXPECT_EQ(sums.unwanted, 0U);
    EXPECT_EQ(sums.lostQueue, 4U);
}

// Asks when the observer has seen the events and is not done with the round yet, sends behind these events.
class Follower : public TraceFollower {
public:
    Follower(nanoseconds when, const Observer& observer) : TraceFollower(when), observer(observer) {}
    void OnObserved() override { roundsBefore = observer.rounds.size(); }
    void OnFlushed(const MessageSender& send) override
    {
        EXPECT_EQ(observer.rounds.size(), roundsBefore + 1);
        send("first", std::make_unique<Framework::CmdMessage>("", ""));
    }

private:
    const Observer& observer;
    std::size_t roundsBefore = 0;
};

TEST_F(EventDeliveryTest, WhatFollowsTheTraceComesBehindTheEventsUntilItsTime)
{
    delivery.SetObserver(&observer);
    table.Add(first, fork);
    for (const int when : {2, 4}) {
        delivery.Follow(std::make_shared<Follower>(nanoseconds{when}, observer));
    }
    Record(forkId, 1);
    delivery.EndRound(nanoseconds{1});
    EXPECT_THAT(batches, ElementsAre(1U)) << "nothing follows yet";
    Record(forkId, 1);
    Record(forkId, 1);
    delivery.EndRound(nanoseconds{3});
    EXPECT_THAT(batches, ElementsAre(1U, 2U, 1U));
    EXPECT_TRUE(delivery.IsFollowed());
    delivery.EndRound(nanoseconds{4});
    EXPECT_THAT(batches, ElementsAre(1U, 2U, 1U, 1U));
    EXPECT_FALSE(delivery.IsFollowed());
}

TEST_F(EventDeliveryTest, CountsWhatIsOfNoUseToASubscriberThatHasStopped)
{
    std::vector<std::unique_ptr<Framework::Message>> queue;
    EventDelivery toNobody{table, nullptr, [&](const std::string&, std::unique_ptr<Framework::Message> message) {
                               queue.push_back(std::move(message));
                               return Sending::Accepted;
                           }};
    table.Add(first, fork);
    table.Add(first, call);
    RecordFor(toNobody, forkId, 1);
    RecordFor(toNobody, callId, 1);
    toNobody.EndRound({});
    EXPECT_EQ(toNobody.TakeSums().unwanted, 0U);
    queue.clear();
    const DeliverySums sums = toNobody.TakeSums();
    EXPECT_EQ(sums.unwanted, 2U);
    EXPECT_EQ(sums.callsRefused, 1U);

    table.Forget(&first);
    RecordFor(toNobody, forkId, 1);  // was in the kernel's buffer still
    RecordFor(toNobody, callId, 1);
    const DeliverySums late = toNobody.TakeSums();
    EXPECT_EQ(late.unwanted, 2U);
    EXPECT_EQ(late.callsRead, 1U);
    EXPECT_EQ(late.callsRefused, 1U);
}

TEST_F(EventDeliveryTest, PutsAnObserversMessagesBetweenTheEventsAndDropsWhatItDoesNotAdmit)
{
    delivery.SetObserver(&observer);
    table.Observe(fork);
    table.Add(first, fork);
    table.Add(first, call);
    Record(forkId, Observer::refusedTid);
    Record(callId, Observer::refusedTid);
    Record(forkId, 3, true);
    Record(callId, 3);
    Finish();
    EXPECT_THAT(first.seen, ElementsAre("notice", "fork 7", "notice", "fork 3", "sys_enter_call 3"));
    EXPECT_THAT(batches, ElementsAre(5U)) << "many notices must not fill a queue that counts messages";
    EXPECT_THAT(observer.seen, ElementsAre(7, Observer::lossMark, 3)) << "the loss before what followed it";
    EXPECT_EQ(delivery.TakeSums().notContainer, 1U);

    first.seen.clear();
    for (unsigned long sent = 0; sent <= EventBatch::maxEvents; ++sent) {
        delivery.SendInOrder(first, std::make_shared<Framework::CmdMessage>("", ""));
    }
    delivery.SendInOrder(second, std::make_shared<Framework::CmdMessage>("", ""));  // which gets no events
    Finish();
    EXPECT_EQ(first.seen.size(), EventBatch::maxEvents + 1);
    EXPECT_THAT(second.seen, ElementsAre("notice"));
}

TEST_F(EventDeliveryTest, TableCountsUsersOfAnEventUnderAllItsNames)
{
    EXPECT_TRUE(table.Add(first, call));
    EXPECT_FALSE(table.Add(first, call));
    EXPECT_FALSE(table.Add(second, alias));
    EXPECT_FALSE(table.Observe(call));
    EXPECT_FALSE(table.Remove(second, call)) << "never subscribed under that name";
    EXPECT_FALSE(table.Remove(first, call));
    EXPECT_FALSE(table.Remove(first, call));
    EXPECT_THAT(table.StopObserving(), IsEmpty()) << "there is the other name";
    EXPECT_THAT(table.Forget(&second), ElementsAre(&alias));
}

}  // namespace
}  // namespace Engine
