// SPDX-License-Identifier: Apache-2.0
#include "framework/EventWaiter.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <thread>

#include "host/sdk/FileDescriptor.h"

namespace {

struct EventWaiterTest : testing::Test {
    bool Watch(int fd)
    {
        return waiter.Add(fd, EPOLLIN, [this](std::uint32_t) { ++ran; });
    }

    // A wait that must not last: it would be a minute.
    int Wait()
    {
        const auto begin = std::chrono::steady_clock::now();
        const int result = waiter.WaitAndHandleEvent(60'000, 8);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds{20}) << "slept through it";
        return result;
    }

    SDK::FileDescriptor first{::eventfd(1, EFD_CLOEXEC)};  // readable, and so is the second
    SDK::FileDescriptor second{::eventfd(1, EFD_CLOEXEC)};
    Framework::EventWaiter waiter;
    int ran = 0;
};

TEST_F(EventWaiterTest, TellsDescriptorEventsFromWakeUpsOfWhichNoneIsLost)
{
    EXPECT_FALSE(Watch(-1));
    EXPECT_TRUE(Watch(first.Get()));
    EXPECT_FALSE(Watch(first.Get())) << "the first registration stays";
    EXPECT_EQ(Wait(), 1);

    waiter.Remove(first.Get());
    waiter.Wake();
    EXPECT_EQ(Wait(), -1) << "a wake-up before the wait counts";
    EXPECT_EQ(ran, 1);
    waiter.SetPending([this] {
        std::thread([this] { waiter.Wake(); }).join();  // it comes when the queue has just been found empty
        return false;
    });
    EXPECT_EQ(Wait(), -1);
}

TEST_F(EventWaiterTest, HandlersMayRemoveEachOtherAndTheQueueHasItsTurn)
{
    const auto replaceBoth = [&](std::uint32_t) {
        for (const int fd : {first.Get(), second.Get()}) {
            waiter.Remove(fd);
            Watch(fd);
        }
    };
    waiter.Add(first.Get(), EPOLLIN, replaceBoth);
    waiter.Add(second.Get(), EPOLLIN, replaceBoth);
    EXPECT_EQ(Wait(), 1) << "the other event was fetched before its handler went";
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(Wait(), 2) << "level triggered: still ready";
    waiter.SetPending([] { return true; });
    EXPECT_EQ(Wait(), -1) << "busy descriptors do not starve the queue";
    EXPECT_EQ(Wait(), 2);
}

}  // namespace
