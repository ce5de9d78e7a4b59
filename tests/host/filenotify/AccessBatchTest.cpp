// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/AccessBatch.h"

#include "tests/host/filenotify/NotifyFixture.h"

namespace {

class AccessBatchTest : public NotifyFixture {
protected:
    std::unique_ptr<Engine::AccessBatch> Batch(const std::vector<int>& pids)
    {
        auto batch = std::make_unique<Engine::AccessBatch>(now);
        for (const int pid : pids) {
            Engine::FileNotifyMessage access{1, "/watched/f", 2};
            access.SetProcess(static_cast<unsigned int>(pid), {});
            batch->Add("detector", access);
        }
        return batch;
    }
};

TEST_F(AccessBatchTest, AProcessIsJudgedByWhatTheTraceHasTold)
{
    const auto batch = Batch({52, 152, 252});
    system.Put(152, {{1, "sh"}, "", "", {}});
    system.PutInContainer(252, "0123456789ab");
    std::vector<int> reported;
    batch->OnObserved([&](int pid) { reported.push_back(pid); });
    EXPECT_THAT(reported, testing::ElementsAre(52, 252));
    EXPECT_EQ(Flush(*batch), 1) << "many accesses must not fill a queue that counts messages";
    ASSERT_EQ(subscriber.seen.size(), 2U);
    EXPECT_EQ(subscriber.seen[0].GetEventProcessId(), 52U) << "unknown still";
    EXPECT_EQ(subscriber.seen[1].GetEventProcessId(), 252U);
    EXPECT_EQ(Counted("notify.not_container"), 1U);
    EXPECT_EQ(Counted("notify.delivered"), 2U);
}

TEST_F(AccessBatchTest, WhatNoQueueTakesIsLostAndWhatHasNoReceiverIsNot)
{
    Flush(*Batch({50, 50}), Engine::Sending::Refused);
    EXPECT_EQ(Counted("notify.lost_queue"), 2U);
    Batch({50});
    EXPECT_EQ(Counted("notify.lost_queue"), 1U) << "the trace's queue was full";
    Flush(*Batch({50}), Engine::Sending::Gone);
    EXPECT_EQ(Counted("notify.lost_queue"), 0U);
    EXPECT_EQ(Counted("notify.delivered"), 0U);
}

}  // namespace
