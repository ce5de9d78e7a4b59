// SPDX-License-Identifier: Apache-2.0
#include "framework/EventWaiter.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/sdk/FileDescriptor.h"

namespace Framework {

namespace {

// Every registration has a number of its own, so that an event which was fetched before its handler went, and the
// descriptor's number came into use again, reaches no handler.
constexpr std::uint64_t wakeUpNumber = 0;

constexpr int shortWaitMs = 20;
constexpr int restMs = 1000;

SDK::FileDescriptor Checked(int fd, const char* what)
{
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return SDK::FileDescriptor(fd);
}

// False with errno set when epoll refuses it.
bool Register(int epoll, int fd, std::uint32_t events, std::uint64_t number)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = number;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

struct EventWaiter::Impl {
    // What a wake-up takes. Awake: nothing, the thread looks at its queue before it sleeps. Sleeping: the producer that
    // moves it to Notified writes the eventfd. Notified: nothing, the next wait does not sleep.
    enum class WaitState : int { Awake, Sleeping, Notified };

    struct Watch {
        int fd;
        std::shared_ptr<Handler> handler;  // shared: it may remove itself while it runs
    };

    SDK::FileDescriptor epoll = Checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
    SDK::FileDescriptor wakeUp = Checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
    std::atomic<WaitState> state{WaitState::Awake};
    std::function<bool()> hasPending;
    bool queuesTurn = false;
    int idleMs = 0;  // waited since the last event
    std::uint64_t lastNumber = wakeUpNumber;
    std::unordered_map<std::uint64_t, Watch> watches;
    std::unordered_map<int, std::uint64_t> numbers;  // by descriptor
    std::vector<epoll_event> ready;

    bool Pending() const { return hasPending && hasPending(); }
    int Fetch(int timeoutMs, int batch);
    int RunHandlers(int fetched);
};

EventWaiter::EventWaiter() : impl(std::make_unique<Impl>())
{
    // Edge triggered: each write makes one event and need never be read back (eventfd(2), epoll(7)); the counter would
    // be full after 2^64 wake-ups.
    if (!Register(impl->epoll.Get(), impl->wakeUp.Get(), EPOLLIN | EPOLLET, wakeUpNumber)) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

EventWaiter::~EventWaiter() = default;

bool EventWaiter::Add(int fd, std::uint32_t events, Handler handler)
{
    const std::uint64_t number = impl->lastNumber + 1;
    if (!Register(impl->epoll.Get(), fd, events, number)) {
        return false;
    }
    impl->lastNumber = number;
    impl->watches[number] = {fd, std::make_shared<Handler>(std::move(handler))};
    impl->numbers[fd] = number;
    return true;
}

void EventWaiter::Remove(int fd)
{
    const auto found = impl->numbers.find(fd);
    if (found == impl->numbers.end()) {
        return;
    }
    ::epoll_ctl(impl->epoll.Get(), EPOLL_CTL_DEL, fd, nullptr);
    impl->watches.erase(found->second);
    impl->numbers.erase(found);
}

// No wake-up is lost: the producer stores its message and then reads `state`, this thread writes `state` and then looks
// at the queue, and all four are sequentially consistent. So either the producer sees Sleeping and writes the eventfd,
// or this thread sees the message and does not sleep.
int EventWaiter::Impl::Fetch(int timeoutMs, int batch)
{
    ready.resize(static_cast<std::size_t>(std::max(batch, 1)));
    if (state.exchange(WaitState::Sleeping) == WaitState::Notified || Pending()) {
        state.store(WaitState::Awake);
        timeoutMs = 0;
    }
    if (timeoutMs >= shortWaitMs && idleMs >= restMs) {
        timeoutMs = std::max(timeoutMs, restMs);
    }
    const int fetched = ::epoll_wait(epoll.Get(), ready.data(), static_cast<int>(ready.size()), timeoutMs);
    state.store(WaitState::Awake);
    idleMs = fetched == 0 && timeoutMs > 0 ? std::min(idleMs, restMs) + std::min(timeoutMs, restMs) : 0;
    return std::max(fetched, 0);  // interrupted by a signal: as if the time were up
}

int EventWaiter::Impl::RunHandlers(int fetched)
{
    int ran = 0;
    for (int i = 0; i < fetched; ++i) {
        const epoll_event event = ready[static_cast<std::size_t>(i)];
        const std::uint64_t number = event.data.u64;  // copied: members of the packed structure are not aligned
        const auto found = watches.find(number);
        if (found == watches.end()) {
            continue;
        }
        const std::shared_ptr<Handler> handler = found->second.handler;
        (*handler)(event.events);
        ++ran;
    }
    return ran;
}

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int batch)
{
    if (std::exchange(impl->queuesTurn, false) && impl->Pending()) {
        return -1;
    }
    const int ran = impl->RunHandlers(impl->Fetch(timeoutMs, batch));
    impl->queuesTurn = ran > 0;
    return ran > 0 ? ran : -1;
}

void EventWaiter::Wake()
{
    if (impl->state.load() == Impl::WaitState::Notified) {
        return;
    }
    if (impl->state.exchange(Impl::WaitState::Notified) == Impl::WaitState::Sleeping) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(impl->wakeUp.Get(), &one, sizeof one);
    }
}

void EventWaiter::SetPending(std::function<bool()> hasPending)
{
    impl->hasPending = std::move(hasPending);
}

}  // namespace Framework
