// SPDX-License-Identifier: Apache-2.0
// Where a task's thread sleeps: on descriptors that it watches and on its message queue. See epoll(7).
//
// Ownership: owns its epoll set and eventfd; never the descriptors that are watched.
// Thread:    one waits, that of the task; any may wake it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace Framework {

class EventWaiter {
public:
    // Called on the waiting thread with the epoll(7) event bits that are ready.
    using Handler = std::function<void(std::uint32_t events)>;

    // Throws std::system_error when the kernel gives no epoll set or eventfd.
    EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;
    ~EventWaiter();

    // Watches `fd` for the epoll bits `events`, level triggered. The descriptor stays the caller's and must be removed
    // before it is closed. Returns false, with errno set, when epoll refuses it. Thread: the waiting thread, or any
    // while no thread waits.
    bool Add(int fd, std::uint32_t events, Handler handler);

    // No harm for a descriptor that is not watched. Handlers may remove descriptors, their own included.
    void Remove(int fd);

    // Waits until a watched descriptor is ready, the task's queue is fed, or `timeoutMs` milliseconds have passed, and
    // runs the handlers of at most `batch` ready descriptors. Returns how many handlers ran; -1 when there was no
    // descriptor event to report, that is, the time is up or only the queue was fed: the task then
    // has its queue to look after. After a wait that ran handlers a fed queue has its turn, -1 at once, so that busy
    // descriptors cannot starve it. A negative `timeoutMs` waits without limit. What a handler throws comes out here;
    // the other ready descriptors then have their turn at the next wait.
    // A thread that has had nothing to do for a second is not woken for that more often than once a second: its waits
    // of 20 ms and more then last as long, unless something comes.
    int WaitAndHandleEvent(int timeoutMs, int batch);

    // Wakes the waiting thread. Any thread. Costs a system call only while that thread sleeps.
    void Wake();

    // Asked before the thread goes to sleep; true means that it must not. Set once, before the first wait.
    void SetPending(std::function<bool()> hasPending);

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Framework
