// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceSubscriberQueue.h"

#include <gtest/gtest.h>

#include <thread>

#include "host/ftrace/EventKind.h"

namespace Engine {
namespace {

constexpr std::uint64_t loud = 1;
constexpr std::uint64_t quiet = 2;

// A subscriber that needs long for an event, so that few may wait for it.
class SlowTask : public Framework::Task, public AbstractMessage<FtraceMessage>::Receiver {
public:
    SlowTask() : Task("slow", "", Framework::TaskCondition::EventLoop, 4) {}
    int Receive(const FtraceMessage& /*event*/) override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
        return 0;
    }
};

class TraceSubscriberQueueTest : public testing::Test {
protected:
    TraceSubscriberQueueTest()
    {
        Offer(quiet, open, 1);
        queue.Flush();
        waiting.front()->MessageHandle(static_cast<Framework::Task*>(&task));
        waiting.clear();
    }

    // Returns how many of the calls were not excluded.
    std::uint64_t Offer(std::uint64_t container, const EventKind& kind, std::uint64_t calls)
    {
        const std::uint64_t before = counts.shed;
        const std::uint64_t data = 0;
        for (std::uint64_t i = 0; i < calls; ++i) {
            queue.AddCall(kind, {reinterpret_cast<const std::byte*>(&data), sizeof data}, container);
        }
        queue.Flush();
        return calls - (counts.shed - before);
    }

    const EventKind open{"syscalls", "sys_enter_open_by_handle_at", {}};
    const EventKind mount{"syscalls", "sys_enter_mount", {}};
    SlowTask task;
    TraceCounts counts;
    std::vector<std::unique_ptr<Framework::Message>> waiting;
    const TraceOutlet outlet{nullptr,
                             [this](const std::string&, std::unique_ptr<Framework::Message> message) {
                                 waiting.push_back(std::move(message));
                                 return Sending::Accepted;
                             },
                             &counts};
    TraceSubscriberQueue queue{task, outlet};
};

TEST_F(TraceSubscriberQueueTest, BoundsAStormAndLetsTheOthersThroughUntilTheSubscriberHasCaughtUp)
{
    const std::uint64_t admitted = Offer(loud, open, 1000000);
    EXPECT_GE(admitted, 301U) << "too few for the detector that counts calls";
    EXPECT_LE(admitted, TraceSubscriberQueue::leastRoom + EventBatch::maxEvents);
    EXPECT_EQ(queue.Waiting(), admitted);
    EXPECT_EQ(Offer(quiet, open, 10), 10U);
    EXPECT_EQ(Offer(loud, mount, 10), 10U) << "a flood of one call hid another of the same container";
    waiting.clear();
    queue.Flush();
    EXPECT_EQ(Offer(loud, open, 400), 400U);
}

TEST_F(TraceSubscriberQueueTest, BoundsAContainerThatFloodsWithManyKinds)
{
    const std::vector<EventKind> kinds(300, open);
    std::uint64_t admitted = 0;
    for (const EventKind& kind : kinds) {
        admitted += Offer(loud, kind, 10000);
    }
    EXPECT_LE(admitted, TraceSubscriberQueue::leastRoom * 2);
}

}  // namespace
}  // namespace Engine
