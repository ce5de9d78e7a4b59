// SPDX-License-Identifier: Apache-2.0
#include "framework/EventWaiter.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "host/framework/Support.h"
#include "host/sdk/FileDescriptor.h"

namespace {

using namespace FrameworkTest;

SDK::FileDescriptor ReadyDescriptor()
{
    return SDK::FileDescriptor(::eventfd(1, EFD_CLOEXEC));
}

class EventWaiterTest : public testing::Test {
protected:
    void Watch(int fd)
    {
        ASSERT_TRUE(waiter.Add(fd, EPOLLIN, [this, fd](std::uint32_t) { ran.push_back(fd); }));
    }

    Framework::EventWaiter waiter;
    std::vector<int> ran;
};

TEST_F(EventWaiterTest, TellsDescriptorEventsFromEverythingElse)
{
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 8), -1);

    const auto descriptor = ReadyDescriptor();
    Watch(descriptor.Get());
    EXPECT_EQ(WaitBriefly(waiter), 1);

    waiter.Remove(descriptor.Get());
    waiter.Wake();
    EXPECT_EQ(WaitBriefly(waiter), -1) << "a wake-up before the wait counts";
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 8), -1);
    EXPECT_EQ(ran.size(), 1U);
}

// The waker is as quick as it can be, to hit the moment in which the other goes to sleep.
TEST_F(EventWaiterTest, EveryWakeUpReachesTheSleeper)
{
    constexpr int rounds = 50'000;
    std::atomic<int> woken{0};
    std::atomic<bool> done{false};
    std::thread sleeper([&] {
        while (!done) {
            waiter.WaitAndHandleEvent(foreverMs, 8);
            Dither(++woken);
        }
    });
    bool lost = false;
    for (int round = 0; round < rounds && !lost; ++round) {
        const int before = woken;
        waiter.Wake();
        lost = !SpinUntil([&] { return woken != before; });
    }
    EXPECT_FALSE(lost);
    done = true;
    waiter.Wake();
    sleeper.join();
}

TEST_F(EventWaiterTest, AWakeUpAfterTheLastLookAtTheQueueIsNotLost)
{
    waiter.SetPending([this] {
        std::thread([this] { waiter.Wake(); }).join();  // it comes when the queue has just been found empty
        return false;
    });
    EXPECT_EQ(WaitBriefly(waiter), -1);
}

TEST_F(EventWaiterTest, HandlersMayRemoveThemselvesAndEachOther)
{
    const auto first = ReadyDescriptor();
    const auto second = ReadyDescriptor();
    const auto removeBoth = [&](std::uint32_t) {
        waiter.Remove(first.Get());
        waiter.Remove(second.Get());
        ran.push_back(0);
    };
    ASSERT_TRUE(waiter.Add(first.Get(), EPOLLIN, removeBoth));
    ASSERT_TRUE(waiter.Add(second.Get(), EPOLLIN, removeBoth));

    EXPECT_EQ(WaitBriefly(waiter), 1) << "the other event was fetched before its handler went";
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 8), -1);
}

TEST_F(EventWaiterTest, AnEventFetchedForAnOldHandlerDoesNotReachTheNewOne)
{
    const auto first = ReadyDescriptor();
    const auto second = ReadyDescriptor();
    const auto replaceBoth = [&](std::uint32_t) {
        for (const int fd : {first.Get(), second.Get()}) {
            waiter.Remove(fd);
            Watch(fd);
        }
    };
    ASSERT_TRUE(waiter.Add(first.Get(), EPOLLIN, replaceBoth));
    ASSERT_TRUE(waiter.Add(second.Get(), EPOLLIN, replaceBoth));

    EXPECT_EQ(WaitBriefly(waiter), 1);
    EXPECT_TRUE(ran.empty());
    EXPECT_EQ(WaitBriefly(waiter), 2) << "level triggered: still ready";
}

TEST_F(EventWaiterTest, SmallBatchesReachEveryDescriptorInTurn)
{
    std::vector<SDK::FileDescriptor> descriptors;
    for (int i = 0; i < 3; ++i) {
        descriptors.push_back(ReadyDescriptor());
        Watch(descriptors.back().Get());
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(WaitBriefly(waiter, 1), 1);
    }
    std::sort(ran.begin(), ran.end());
    EXPECT_EQ(std::unique(ran.begin(), ran.end()) - ran.begin(), 3);
}

TEST_F(EventWaiterTest, BusyDescriptorsDoNotStarveTheQueue)
{
    const auto busy = ReadyDescriptor();
    Watch(busy.Get());
    waiter.SetPending([] { return true; });
    EXPECT_EQ(WaitBriefly(waiter), 1);
    EXPECT_EQ(WaitBriefly(waiter), -1);
    EXPECT_EQ(WaitBriefly(waiter), 1);
}

TEST_F(EventWaiterTest, RefusesWhatCannotBeWatched)
{
    EXPECT_FALSE(waiter.Add(-1, EPOLLIN, [](std::uint32_t) {}));
    EXPECT_EQ(errno, EBADF);
    const auto descriptor = ReadyDescriptor();
    Watch(descriptor.Get());
    EXPECT_FALSE(waiter.Add(descriptor.Get(), EPOLLIN, [](std::uint32_t) {}));
    EXPECT_EQ(errno, EEXIST);
    waiter.Remove(12345);
    EXPECT_EQ(WaitBriefly(waiter), 1) << "the first registration stays";
}

}  // namespace
