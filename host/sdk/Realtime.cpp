// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/Realtime.h"

#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <semaphore>
#include <thread>

#include "LogSite.h"
#include "host/sdk/Counters.h"

namespace SDK {

namespace {

using std::chrono::nanoseconds;
using Clock = std::chrono::steady_clock;

constexpr unsigned int secondShift = 36;  // 2^36 ns are 68 s: more than all threads together spend in a second
constexpr std::uint64_t spentMask = (std::uint64_t{1} << secondShift) - 1;
constexpr std::chrono::milliseconds lookPause{1};

// A thread that has the priority, or gets it back.
struct Place {
    std::atomic<pid_t> tid{0};  // 0: free
    std::atomic<bool> isRaised{false};
};

struct Settings {
    RealtimeBudget budget;
    std::set<std::string> threads;
    std::array<Place, 16> places;
    std::counting_semaphore<> demotions{0};
};

Settings& All()
{
    static auto* const settings = new Settings;  // never destroyed: threads look at it until the end
    return *settings;
}

struct Thread {
    Thread() = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    ~Thread()
    {
        if (place != nullptr) {
            place->tid = 0;
        }
    }

    Place* place = nullptr;  // null: it is not watched
    nanoseconds seen{0};     // its CPU time at the last look
    Clock::time_point nextLook;
};

thread_local Thread self;

nanoseconds CpuTime()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds{time.tv_sec} + nanoseconds{time.tv_nsec};
}

// `tid`: 0: the calling thread.
bool SetPriority(pid_t tid, bool isRaised)
{
    const sched_param priority{isRaised ? 1 : 0};
    return ::sched_setscheduler(tid, (isRaised ? SCHED_RR : SCHED_OTHER) | SCHED_RESET_ON_FORK, &priority) == 0;
}

Place* TakePlace()
{
    for (Place& place : All().places) {
        pid_t none = 0;
        if (place.tid.compare_exchange_strong(none, ::gettid())) {
            return &place;
        }
    }
    return nullptr;
}

void RestoreAll()
{
    for (Place& place : All().places) {
        const pid_t tid = place.tid;
        if (tid != 0 && (::sched_getscheduler(tid) & ~SCHED_RESET_ON_FORK) != SCHED_RR && SetPriority(tid, true)) {
            place.isRaised = true;
        }
    }
}

// The thread that gives the priority back. It waits for nothing that a thread without the priority may hold.
[[noreturn]] void Restore()
{
    ::prctl(PR_SET_NAME, "realtime");
    SetPriority(0, true);
    for (;;) {
        for (All().demotions.acquire(); All().demotions.try_acquire();) {
        }
        // Twice: the thread may just be on its way to lose it when the second is over.
        for (int times = 0; times < 2; ++times) {
            const auto second = std::chrono::floor<std::chrono::seconds>(Clock::now().time_since_epoch());
            std::this_thread::sleep_until(Clock::time_point{second + RealtimeBudget::window});
            RestoreAll();
        }
    }
}

}  // namespace

bool RealtimeBudget::Spend(Nanoseconds now, Nanoseconds spent)
{
    const auto second = static_cast<std::uint64_t>(now / window) << secondShift;
    std::uint64_t before = state;
    std::uint64_t after = 0;
    do {
        const bool isSame = (before & ~spentMask) == second;
        after = second | (((isSame ? before & spentMask : 0) + static_cast<std::uint64_t>(spent.count())) & spentMask);
    } while (!state.compare_exchange_weak(before, after));
    return (after & spentMask) < budget;
}

void Realtime::Configure(unsigned int percent, std::set<std::string> threads)
{
    constexpr unsigned int whole = 100;
    All().budget.Set(nanoseconds{RealtimeBudget::window} * percent / whole);
    All().threads = percent == 0 ? std::set<std::string>{} : std::move(threads);
}

void Realtime::Enter(const std::string& thread)
{
    static std::atomic<bool> hasWarned{false};
    if (self.place != nullptr) {
        return;
    }
    if (!All().threads.contains(thread)) {
        if ((::sched_getscheduler(0) & ~SCHED_RESET_ON_FORK) == SCHED_RR) {  // from the thread that made it, see Loan
            SetPriority(0, false);
        }
        return;
    }
    if (!SetPriority(0, true)) {
        const std::string reason = std::strerror(errno);
        if (!hasWarned.exchange(true)) {
            RootLog::Warning("no real-time priority (%s): a storm of processes can delay detection", reason);
        }
        return;
    }
    static std::once_flag isRestored;
    std::call_once(isRestored, [] { std::thread{Restore}.detach(); });
    self.place = TakePlace();
    self.seen = CpuTime();
    if (self.place == nullptr) {
        SetPriority(0, false);  // more threads than any agent has
        return;
    }
    self.place->isRaised = true;
}

void Realtime::Hurry(pthread_t thread)
{
    const sched_param priority{1};
    if (!All().threads.empty()) {
        ::pthread_setschedparam(thread, SCHED_RR, &priority);  // refused as it was to Enter
    }
}

Realtime::Loan::Loan() : begun(CpuTime())
{
    const sched_param priority{1};
    // A thread that has the priority of its own keeps it.
    isGiven = !All().threads.empty() && ::sched_getscheduler(0) == SCHED_OTHER &&
              ::sched_setscheduler(0, SCHED_RR, &priority) == 0;
}

Realtime::Loan::~Loan()
{
    if (isGiven) {
        All().budget.Spend(Clock::now().time_since_epoch(), CpuTime() - begun);
        const sched_param priority{0};
        ::sched_setscheduler(0, SCHED_OTHER, &priority);
    }
}

void Realtime::Watch()
{
    const Clock::time_point now = self.place != nullptr ? Clock::now() : Clock::time_point::min();
    if (self.place == nullptr || now < self.nextLook) {
        return;
    }
    self.nextLook = now + lookPause;
    const nanoseconds spent = CpuTime() - self.seen;
    self.seen += spent;
    const bool isRaised = self.place->isRaised;
    const bool mayBeRaised = All().budget.Spend(now.time_since_epoch(), isRaised ? spent : nanoseconds{0});
    if (mayBeRaised == isRaised) {
        return;
    }
    self.place->isRaised = mayBeRaised;
    if (!mayBeRaised) {  // before it may not run any more
        static Counters::Counter& demoted = Counters::Get(CounterName::demoted);
        ++demoted;
        All().demotions.release();
    }
    if (!SetPriority(0, mayBeRaised)) {
        self.place->isRaised = isRaised;
    }
}

}  // namespace SDK
