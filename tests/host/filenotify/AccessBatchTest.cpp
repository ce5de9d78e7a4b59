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
        batch.OnObserved([&](int pid) { reported.push_back(pid); });
        EXPECT_THAT(reported, testing::ElementsAre(52, 252)) << "52 is unknown still";
        EXPECT_EQ(Flush(batch, result), 1) << "many accesses must not fill a queue that counts messages";
        EXPECT_EQ(Counted("notify.not_container"), 1U);
        EXPECT_EQ(Counted("notify.delivered"), delivered);
        EXPECT_EQ(Counted("notify.lost_queue"), lost);
    }
    EXPECT_EQ(subscriber.seen.size(), 2U);
}

}  // namespace
