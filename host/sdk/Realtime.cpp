// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/Realtime.h"

#include <sched.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "LogSite.h"
#include "host/sdk/Counters.h"

namespace SDK {

namespace {

using std::chrono::nanoseconds;
using Clock = std::chrono::steady_clock;

constexpr unsigned int secondShift = 36;  // 2^36 ns are 68 s: more than all threads together spend in a second
constexpr std::uint64_t spentMask = (std::uint64_t{1} << secondShift) - 1;
constexpr std::chrono::milliseconds lookPause{1};

struct Settings {
    RealtimeBudget budget;
    std::set<std::string> threads;
};

Settings& All()
{
    static auto* const settings = new Settings;  // never destroyed: threads look at it until the end
    return *settings;
}

struct Thread {
    bool isWatched = false;
    bool isRaised = false;
    nanoseconds seen{0};  // its CPU time at the last look
    Clock::time_point nextLook;
};

thread_local Thread self;

nanoseconds CpuTime()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds{time.tv_sec} + nanoseconds{time.tv_nsec};
}

bool SetPriority(bool isRaised)
{
    const sched_param priority{isRaised ? 1 : 0};
    return ::sched_setscheduler(0, (isRaised ? SCHED_RR : SCHED_OTHER) | SCHED_RESET_ON_FORK, &priority) == 0;
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
    if (!All().threads.contains(thread)) {
        return;
    }
    if (!SetPriority(true)) {
        const std::string reason = std::strerror(errno);
        if (!hasWarned.exchange(true)) {
            RootLog::Warning("no real-time priority (%s): a storm of processes can delay detection", reason);
        }
        return;
    }
    self = {true, true, CpuTime(), {}};
}

void Realtime::Watch()
{
    const Clock::time_point now = self.isWatched ? Clock::now() : Clock::time_point::min();
    if (!self.isWatched || now < self.nextLook) {
        return;
    }
    self.nextLook = now + lookPause;
    const nanoseconds spent = CpuTime() - self.seen;
    self.seen += spent;
    const bool mayBeRaised = All().budget.Spend(now.time_since_epoch(), self.isRaised ? spent : nanoseconds{0});
    if (mayBeRaised == self.isRaised || !SetPriority(mayBeRaised)) {
        return;
    }
    self.isRaised = mayBeRaised;
    static Counters::Counter& demoted = Counters::Get(CounterName::demoted);
    demoted += mayBeRaised ? 0 : 1;
}

}  // namespace SDK
