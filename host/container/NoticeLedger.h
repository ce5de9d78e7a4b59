// SPDX-License-Identifier: Apache-2.0
// Which container processes the receivers of notices know: from a notice, or from a fork in a container that they saw.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Engine {

// A receiver may keep a bounded table, and what it does when that is full is its own business: the detection task, at
// more than 640 records, forgets every live process at once, and its system calls then go unseen until it forks or is
// announced again. So the collector sees to it that no table fills up. It keeps the list of what the receivers were
// told in the order in which they were told it, at most `limit` long, and withdraws what can be spared before more is
// put in: the dead, oldest first, then the processes that were idle longest. Those are announced again when they act
// again. A receiver's table is never larger than this list, which is what makes the scheme safe: it never reaches its
// limit. Hence a withdrawal that no receiver heard of is put back into the list, and is tried again (see Unheard).
//
// Thread: one at a time. Throws nothing but std::bad_alloc.   Times: on the trace clock.
class NoticeLedger {
public:
    using Nanoseconds = std::chrono::nanoseconds;

    // Well below 640: one fork puts in two.
    static constexpr std::size_t limit = 600;
    // What is withdrawn at once, so that the search for it pays.
    static constexpr std::size_t batch = 64;
    // A process that has ended is withdrawn after this: what is reported about it lags behind its end.
    static constexpr Nanoseconds graceAfterExit = std::chrono::seconds{3};
    // For so long it does not make room before those that are idle longer: a file notification may come as late.
    static constexpr Nanoseconds leastGrace = std::chrono::milliseconds{100};

    // Whether the receivers know a live process `tid` for certain. Notes that it was active at `now`.
    bool IsKnown(int tid, Nanoseconds now);

    // Whether they may still have a record of that id, and whether that is one of a process that has ended.
    bool MayHold(int tid) const { return records.count(tid) != 0; }
    bool HoldsDead(int tid) const;

    // `certain`: false when they may have missed what should have told them; IsKnown then says no.
    void Insert(int tid, Nanoseconds now, bool certain);

    void MarkDead(int tid, Nanoseconds when);
    void Forget(int tid);

    // Nothing is certain any more: a receiver is new, or messages to receivers were lost.
    void Doubt() { ++doubts; }

    // The withdrawals of these were lost, so there are records of them still: to be withdrawn again, whoever bears the
    // id by now. If there are more records than `limit` then, a receiver's table may have overflowed, and nothing is
    // certain.
    void Unheard(const std::vector<int>& tids, Nanoseconds now);

    // Whom to withdraw so that `more` ids fit. They are forgotten here already. Empty in most cases.
    std::vector<int> MakeRoom(std::size_t more, Nanoseconds now);

    // Whom to withdraw because they ended long enough ago. They are forgotten here already.
    std::vector<int> TakeExpired(Nanoseconds now);

    std::vector<int> Ids() const;
    std::size_t Size() const { return records.size(); }

private:
    static constexpr Nanoseconds alive = Nanoseconds::max();

    struct Record {
        Nanoseconds lastActive{0};
        Nanoseconds exit = alive;
        std::uint64_t doubt = 0;  // value of `doubts` when it was last certain; 0: never
    };

    void TakeDead(std::size_t most, Nanoseconds notAfter, std::vector<int>& taken);
    void TakeIdle(std::size_t most, std::vector<int>& taken);

    std::unordered_map<int, Record> records;
    std::deque<std::pair<int, Nanoseconds>> dead;  // in the order of their exits
    std::uint64_t doubts = 1;
};

}  // namespace Engine
