// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/AccessBatch.h"

#include "tests/host/filenotify/NotifyFixture.h"

namespace {

using Engine::Sending;
using AccessBatchTest = NotifyFixture;

TEST_F(AccessBatchTest, IsJudgedByWhatTheTraceHasToldAndAccountedForWhateverBecomesOfIt)
{
    system.PutInContainer(152, "");
    system.PutInContainer(252, "0123456789ab");
    const std::tuple<Sending, unsigned int, unsigned int> rows[] = {
        {Sending::Accepted, 2, 0}, {Sending::Refused, 0, 2}, {Sending::Gone, 0, 0}};
    for (const auto& [result, delivered, lost] : rows) {
        Engine::AccessBatch batch{now};
        for (const int pid : {52, 152, 252}) {
            Engine::FileNotifyMessage access{1, "/watched/f", 2};
            access.SetProcess(static_cast<unsigned int>(pid), {});
            batch.Add(subscriber.name(), access);
            Engine::AccessBatch{now}.Add(subscriber.name(), access);  // the trace's queue was full
        }
        EXPECT_EQ(Counted("notify.lost_queue"), 3U);
        std::vector<int> reported;
        const auto report = [&](std::span<const int> pids) {
            reported.assign(pids.begin(), pids.end());
        };
        EXPECT_EQ(Reach(batch, report, result), 1) << "many accesses must not fill a queue that counts messages";
        EXPECT_THAT(reported, testing::ElementsAre(52, 252)) << "52 is unknown still";
        EXPECT_EQ(Counted("notify.not_container"), 1U);
        EXPECT_EQ(Counted("notify.delivered"), delivered);
        EXPECT_EQ(Counted("notify.lost_queue"), lost);
    }
    EXPECT_EQ(subscriber.seen.size(), 2U);
}

// The subscriber's table is bounded: a later report may take an earlier one back.
TEST_F(AccessBatchTest, NothingIsSaidOfAProcessAfterTheReportOfOthers)
{
    constexpr std::size_t processes = Engine::AccessBatch::mostActive + 2;
    Engine::AccessBatch batch{now};
    for (std::size_t i = 0; i < processes * 4; ++i) {  // two processes at a time, in turn
        Engine::FileNotifyMessage access{1, "/watched/f", 2};
        access.SetProcess(static_cast<unsigned int>(1000 + i / 8 * 2 + i % 2), {});
        batch.Add(subscriber.name(), access);
    }
    std::size_t told = 0;
    const auto report = [&](std::span<const int> pids) {
        EXPECT_EQ(subscriber.seen.size(), told * 4) << "what is about those before";
        EXPECT_EQ(pids.front(), static_cast<int>(1000 + told));
        told += pids.size();
    };
    EXPECT_EQ(Reach(batch, report), 2);
    EXPECT_EQ(told, processes);
    EXPECT_EQ(subscriber.seen.size(), processes * 4);
}

}  // namespace
