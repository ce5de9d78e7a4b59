// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventDelivery.h"

#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <deque>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/ftrace/SubscriptionTable.h"
#include "host/ftrace/SyscallProbeLayout.h"
#include "host/sdk/Counters.h"
#include "host/sdk/TraceTime.h"
#include "sdk/ProcessUtils.h"
#include "tests/support/PageBuilder.h"

namespace Engine {
namespace {

using namespace testing;
using std::chrono::nanoseconds;

constexpr std::uint16_t forkId = 1;
constexpr std::uint16_t callId = 2;
constexpr int slowPid = -1;           // its events take the subscriber long, which fails then
constexpr int lossPid = 3;            // its forks come after a loss
constexpr int endedThread = 1 << 30;  // no thread can have that id
constexpr int hostPid = 9;            // its calls are not admitted; each process below is a container of its own

KnownEvent Event(std::uint16_t id, const std::string& system, const std::string& event)
{
    return {id, event, EventKind{system, event, {{"common_pid", 4, 4, true, EventKind::Shape::Number}}}};
}

// The task that subscribes, and the observer, which announces each observed event to it. Keeps what reached either.
class Subscriber : public Framework::Task, public AbstractMessage<FtraceMessage>::Receiver, public TraceObserver {
public:
    Subscriber() : Task("subscriber", "", Framework::TaskCondition::EventLoop, 4) {}

    int Receive(const FtraceMessage& event) override
    {
        EXPECT_EQ(SDK::TraceTime::Current(), event.When());
        const auto pid = event.get_number("common_pid");
        if (pid == slowPid) {
            std::this_thread::sleep_for(std::chrono::milliseconds{1});
            throw std::runtime_error{"no such process"};
        }
        seen.push_back(event.Kind().Event() + " " + std::to_string(pid));
        SDK::ProcessUtils::GetProcessStatusInfo(endedThread, ended);
        return 0;
    }
    int HandleMsg(const Framework::Message* /*message*/) override
    {
        EXPECT_FALSE(SDK::TraceTime::Current());
        seen.emplace_back("notice");
        return 0;
    }

    std::vector<std::pair<std::string, std::string>> ObservedEvents() const override { return {}; }
    void OnEvent(const FtraceMessage& event, const RecordSource&, TraceSequencer& sequencer) override
    {
        EXPECT_TRUE(sequencer.GetsEvent(*this));
        seen.push_back("observed " + std::to_string(event.get_number("common_pid")));
        sequencer.SendInOrder(*this, std::make_unique<Framework::Message>());
    }
    Origin AdmitSyscall(int tid, const RecordSource&, const FtraceMessage&, TraceSequencer&) override
    {
        return tid % hostPid;
    }
    void OnActivity(std::span<const int> /*pids*/, TraceSequencer& sequencer) override
    {
        EXPECT_FALSE(sequencer.GetsEvent(*this)) << "no event is being observed";
        sequencer.SendInOrder(*this, std::make_unique<Framework::Message>());
    }
    void OnRound(nanoseconds, TraceSequencer& sequencer) override
    {
        for (int left = messagesOfRound; left > 0; --left) {
            sequencer.SendInOrder(*this, std::make_unique<Framework::Message>());
        }
    }
    void OnLoss(TraceSequencer&) override { seen.emplace_back("loss"); }

    std::vector<std::string> seen;
    int messagesOfRound = 0;
    SDK::ProcessUtils::procStatus ended;
};

class EventDeliveryTest : public Test {
protected:
    void Record(std::uint16_t id, int pid, std::uint64_t times = 1)
    {
        const Support::Bytes bytes = Support::Record(id, pid);
        const bool afterLoss = id == forkId && pid == lossPid;
        for (; times > 0; --times) {
            delivery.OnRecord({bytes.data(), static_cast<std::uint32_t>(bytes.size()), id, afterLoss, ++clock, {}});
        }
    }
    // Returns how many of the calls were not excluded.
    std::uint64_t Offer(std::uint16_t id, int container, std::uint64_t calls)
    {
        const std::uint64_t most = calls + counts.shed;
        Record(id, container, calls);
        delivery.EndRound({});
        return most - counts.shed;
    }
    std::vector<std::string> Handle()
    {
        delivery.EndRound({});
        for (const auto& message : std::exchange(queue, {})) {
            message->MessageHandle(static_cast<Framework::Task*>(&task));
        }
        return std::exchange(task.seen, {});
    }

    const KnownEvent fork = Event(forkId, "sched", "fork");
    const KnownEvent call = Event(callId, "syscalls", "sys_enter_call");
    const KnownEvent alias = Event(callId, "syscalls", "sys_enter_alias");
    Subscriber task;
    Framework::Task other{"other", "", Framework::TaskCondition::EventLoop, 4};
    TraceCounts counts;
    std::vector<unsigned long> batches;  // events of each; of another message one
    std::vector<std::unique_ptr<Framework::Message>> queue;
    Sending answer = Sending::Accepted;
    const MessageSender send = [this](const std::string&, std::unique_ptr<Framework::Message> message) {
        batches.push_back(message->EventCount());
        if (answer == Sending::Accepted) {
            queue.push_back(std::move(message));
        }
        return answer;
    };
    const TraceOutlet outlet{nullptr, send, &counts};
    SubscriptionTable table{outlet};
    EventDelivery delivery{table, outlet};
    std::uint64_t clock = 0;
};

TEST_F(EventDeliveryTest, AContainerGetsItsShareOfASlowSubscriberUntilThatHasCaughtUp)
{
    constexpr int loud = 1;
    constexpr int quiet = 2;
    constexpr std::uint16_t lastId = 30;
    std::deque<KnownEvent> kinds;
    delivery.SetObserver(&task);
    for (std::uint16_t id = callId; id <= lastId; ++id) {
        table.Add(task, kinds.emplace_back(Event(id, "syscalls", "sys_enter_any")));
    }
    Record(callId, slowPid);
    Handle();
    const std::uint64_t admitted = Offer(callId, loud, 100000);
    EXPECT_GE(admitted, 301U) << "too few for the detector that counts calls";
    EXPECT_LE(admitted, TraceSubscriberQueue::leastRoom + EventBatch::maxEvents);
    EXPECT_EQ(Offer(callId, quiet, 10), 10U);
    EXPECT_EQ(Offer(lastId, loud, 10), 10U) << "a flood of one call hid another of the same container";
    std::uint64_t ofManyKinds = 0;
    for (std::uint16_t id = callId + 1; id < lastId; ++id) {
        ofManyKinds += Offer(id, loud, 3000);
    }
    EXPECT_LE(ofManyKinds, TraceSubscriberQueue::leastRoom) << "many floods are no way around";
    queue.clear();
    delivery.EndRound({});
    EXPECT_EQ(Offer(callId, loud, 400), 400U);
}

// Reports processes behind the events, and sends something about each.
class Barrier : public TraceBarrier {
public:
    using TraceBarrier::TraceBarrier;
    void OnReached(const ReportActive& reportActive, const MessageSender& send) override
    {
        for (const int pid : {4711, 4712}) {
            reportActive({&pid, 1});
            send("", std::make_unique<Framework::Message>());
        }
    }
};

TEST_F(EventDeliveryTest, ObserversMessagesAndBarriersHaveTheirPlaceAmongTheEventsThatAreAdmitted)
{
    delivery.SendInOrder(task, std::make_unique<Framework::Message>());
    EXPECT_THAT(Handle(), ElementsAre("notice")) << "it gets no events";
    delivery.SetObserver(&task);
    table.Observe(fork);
    table.Add(task, fork);
    table.Add(task, call);
    table.Add(task, alias);
    table.Add(other, call);
    for (const int pid : {hostPid, lossPid}) {
        Record(forkId, pid);
        Record(callId, pid);
    }
    EXPECT_THAT(Handle(), ElementsAre("observed 9", "loss", "observed 3",  // the loss before what followed it
                                      "notice", "fork 9", "notice", "fork 3", "sys_enter_call 3", "sys_enter_alias 3",
                                      "sys_enter_call 3"));  // the other task's
    for (unsigned long sent = 0; sent <= EventBatch::maxEvents; ++sent) {
        delivery.SendInOrder(task, std::make_unique<Framework::Message>());
    }
    EXPECT_EQ(Handle().size(), EventBatch::maxEvents + 1);
    batches.clear();
    task.messagesOfRound = 2;
    for (const int when : {2, 4}) {
        delivery.Take(std::make_shared<Barrier>(nanoseconds{when}));
    }
    for (const int until : {1, 3, 4}) {
        EXPECT_TRUE(delivery.HasBarriers());
        Record(callId, 1);
        delivery.EndRound(nanoseconds{until});
    }
    EXPECT_THAT(batches, ElementsAre(4U, 1U, 4U, 1U, 1U, 1U, 1U, 1U, 4U, 1U, 1U, 1U, 1U, 1U))
        << "the events with what the round gave rise to, the other task's; then each notice, what is about that one";
    EXPECT_FALSE(delivery.HasBarriers());
}

TEST_F(EventDeliveryTest, WhileACallIsDeliveredItsThreadIsKnownAlthoughItHasEnded)
{
    table.Add(task, call);
    const std::array<char, CE_NAME_BYTES> name{"fifteen bytes.."};
    const CeTraceEntry entry{{callId, 0, 0, endedThread}, 0, 42, {}};
    const auto* bytes = reinterpret_cast<const std::byte*>(&entry);
    Record(callId, 1);
    Handle();
    EXPECT_EQ(task.ended.ppid, -1) << "another made the call";
    delivery.OnRecord({bytes, sizeof entry, callId, false, ++clock, {0, {}, nullptr, name.data()}});
    Record(callId, 2);
    EXPECT_THAT(Handle(), ElementsAre("sys_enter_call " + std::to_string(endedThread), "sys_enter_call 2"));
    EXPECT_EQ(task.ended.ppid, 42);
    EXPECT_EQ(task.ended.name, "fifteen bytes..");
}

// All that may become of a subscriber's events, in any order.
TEST_F(EventDeliveryTest, CountsEveryEventOnce)
{
    auto& delivered = SDK::Counters::Get(SDK::CounterName::traceDelivered);
    auto& calls = SDK::Counters::Get(SDK::CounterName::callsDelivered);
    delivered = calls = 0;
    std::minstd_rand random;
    delivery.SetObserver(&task);
    for (int step = 0; step < 3000; ++step) {
        const auto dice = random() % 32;
        if (dice < 8) {
            table.Add(task, dice < 2 ? fork : call);
        } else if (dice < 9) {
            table.Remove(&task);
        } else if (dice < 10) {
            Handle();
        } else if (dice < 11) {
            queue.clear();  // the subscriber has stopped
        } else if (dice < 15) {
            answer = std::array{Sending::Accepted, Sending::Accepted, Sending::Refused, Sending::Gone}[dice - 11];
        }
        Record(forkId, 1, random() % 500);
        Offer(callId, static_cast<int>(random() % 10), random() % 3000);
    }
    Handle();
    delivery.EndRound({});
    EXPECT_EQ(counts.read, delivered + counts.notContainer + counts.shed + counts.lostQueue + counts.unwanted);
    EXPECT_EQ(counts.callsRead, calls + counts.notContainer + counts.shed + counts.callsRefused);
    EXPECT_THAT((std::array{delivered.load(), calls.load(), counts.notContainer, counts.shed, counts.lostQueue,
                            counts.unwanted, counts.callsRefused}),
                Each(Gt(10000U)));
}

TEST_F(EventDeliveryTest, AnEventIsUsedUntilItsLastSubscriptionUnderAnyNameEnds)
{
    EXPECT_TRUE(table.Add(task, call));
    EXPECT_FALSE(table.Add(task, call) || table.Add(other, alias) || table.Observe(call));
    EXPECT_THAT(table.Remove(&other, &call), IsEmpty()) << "never subscribed under that name";
    EXPECT_THAT(table.Remove(&task, &call), IsEmpty());
    EXPECT_EQ(table.RoutesOf(callId).front().subscribers.size(), 1U) << "subscribed twice";
    EXPECT_THAT(table.Remove(&task), IsEmpty());
    EXPECT_THAT(table.StopObserving(), IsEmpty()) << "there is the other name";
    EXPECT_THAT(table.Remove(&other), ElementsAre(&alias));
}

}  // namespace
}  // namespace Engine
