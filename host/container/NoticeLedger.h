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
// limit.
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

    // Whether the receivers know a live process `tid` for certain. Notes that it was active at `now`.
    bool IsKnown(int tid, Nanoseconds now);

    // Whether they may still have a record of that id, and whether that is one of a process that has ended.
    bool MayHold(int tid) const { return records.count(tid) != 0; }
    bool HoldsDead(int tid) const;

    // `certain`: false when they may have missed what should have told them; IsKnown then says no.
    void Insert(int tid, Nanoseconds now, bool certain);

    void MarkDead(int tid, Nanoseconds when);
    void Forget(int tid);

    // Nothing is certain any more: a receiver is new, or `lost` messages to receivers were lost. As many withdrawals
    // may be among the lost, so there may be that many records more than this list has.
    void Doubt(std::uint64_t lost);

    // Whom to withdraw so that `more` ids fit. They are forgotten here already. Empty in most cases.
    std::vector<int> MakeRoom(std::size_t more);

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

    std::size_t Capacity() const { return limit - stray; }
    void TakeDead(std::size_t most, Nanoseconds notAfter, std::vector<int>& taken);
    void TakeIdle(std::size_t most, std::vector<int>& taken);

    std::unordered_map<int, Record> records;
    std::deque<std::pair<int, Nanoseconds>> dead;  // in the order of their exits
    std::uint64_t doubts = 1;
    std::size_t stray = 0;  // records that receivers may have beside this list
};

}  // namespace Engine
