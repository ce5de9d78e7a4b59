// SPDX-License-Identifier: Apache-2.0
#include "framework/EventWaiter.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <thread>
#include <vector>

#include "host/framework/Support.h"
#include "host/sdk/FileDescriptor.h"

namespace {

using namespace FrameworkTest;

class EventWaiterTest : public testing::Test {
protected:
    bool Watch(int fd)
    {
        return waiter.Add(fd, EPOLLIN, [this](std::uint32_t) { ++ran; });
    }

    SDK::FileDescriptor first{::eventfd(1, EFD_CLOEXEC)};  // readable, and so is the second
    SDK::FileDescriptor second{::eventfd(1, EFD_CLOEXEC)};
    Framework::EventWaiter waiter;
    int ran = 0;
};

TEST_F(EventWaiterTest, TellsDescriptorEventsFromEverythingElse)
{
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 8), -1);
    EXPECT_FALSE(Watch(-1));
    EXPECT_TRUE(Watch(first.Get()));
    EXPECT_FALSE(Watch(first.Get())) << "the first registration stays";
    EXPECT_EQ(WaitBriefly(waiter), 1);

    waiter.Remove(first.Get());
    waiter.Wake();
    EXPECT_EQ(WaitBriefly(waiter), -1) << "a wake-up before the wait counts";
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 8), -1);
    EXPECT_EQ(ran, 1);
}

TEST_F(EventWaiterTest, AWakeUpAfterTheLastLookAtTheQueueIsNotLost)
{
    waiter.SetPending([this] {
        std::thread([this] { waiter.Wake(); }).join();  // it comes when the queue has just been found empty
        return false;
    });
    EXPECT_EQ(WaitBriefly(waiter), -1);
}

TEST_F(EventWaiterTest, HandlersMayRemoveEachOtherAndAnEventOfTheOldOneDoesNotReachTheNew)
{
    const auto replaceBoth = [&](std::uint32_t) {
        for (const int fd : {first.Get(), second.Get()}) {
            waiter.Remove(fd);
            Watch(fd);
        }
    };
    ASSERT_TRUE(waiter.Add(first.Get(), EPOLLIN, replaceBoth));
    ASSERT_TRUE(waiter.Add(second.Get(), EPOLLIN, replaceBoth));
    EXPECT_EQ(WaitBriefly(waiter), 1) << "the other event was fetched before its handler went";
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(WaitBriefly(waiter), 2) << "level triggered: still ready";
}

TEST_F(EventWaiterTest, BusyDescriptorsDoNotStarveTheQueue)
{
    Watch(first.Get());
    waiter.SetPending([] { return true; });
    EXPECT_EQ(WaitBriefly(waiter), 1);
    EXPECT_EQ(WaitBriefly(waiter), -1);
    EXPECT_EQ(WaitBriefly(waiter), 1);
}

}  // namespace
