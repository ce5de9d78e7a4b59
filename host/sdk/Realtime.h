// SPDX-License-Identifier: Apache-2.0
// Real-time priority (SCHED_RR 1) for the threads that detection hangs on, within a budget that they share: a storm of
// ordinary processes cannot keep them from running, and they cannot keep the host from running.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <set>
#include <string>

namespace SDK {

// CPU time that may be spent in each second, by all threads together. Any thread, no lock.
class RealtimeBudget {
public:
    using Nanoseconds = std::chrono::nanoseconds;

    static constexpr std::chrono::seconds window{1};

    void Set(Nanoseconds perWindow) { budget = static_cast<std::uint64_t>(perWindow.count()); }

    // `now`: of a clock that never goes back. False: the budget of the second that `now` is in has been spent.
    bool Spend(Nanoseconds now, Nanoseconds spent);

private:
    std::atomic<std::uint64_t> budget{0};
    std::atomic<std::uint64_t> state{0};  // the second in the upper bits, what was spent in it in the lower ones
};

namespace Realtime {

// `percent`: of one CPU in each second, 0: none. `threads`: by the names that they give to Enter. Before these threads
// begin.
void Configure(unsigned int percent, std::set<std::string> threads);

// Gives the calling thread the priority, if its name is among the configured ones, and takes it from any other. Threads
// and processes that it makes begin without (SCHED_RESET_ON_FORK, sched(7)). Where the kernel refuses it (no
// CAP_SYS_NICE and RLIMIT_RTPRIO 0, or no share of CONFIG_RT_GROUP_SCHED), one warning says so and the thread goes on
// without.
void Enter(const std::string& thread);

// Gives the priority to a thread that is about to end and is waited for: a storm must not hold the waiting up. What it
// spends is not counted. Without effect where there is none to give.
void Hurry(pthread_t thread);

// Gives the calling thread the priority while it lives, for what detection waits for, and the threads that it makes
// meanwhile until they Enter. Its CPU time counts, but does not end it: for short work. Without effect where there is
// none to give.
class Loan {
public:
    Loan();
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;
    ~Loan();

private:
    bool isGiven = false;
    std::chrono::nanoseconds begun{0};  // CPU time of the thread
};

// Counts what the calling thread has spent, at most once a millisecond, and takes the priority away until the second is
// over when the budget is spent (sched.demoted). It comes back also where a storm keeps the thread from running:
// another thread, which does nothing else, gives it back. To be called often: in each pass and each longer loop.
// Without effect in other threads.
void Watch();

}  // namespace Realtime

}  // namespace SDK
