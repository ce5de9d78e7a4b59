// SPDX-License-Identifier: Apache-2.0
// Counts one process's calls in a sliding window.
//
// The times are kept sorted in a vector, and the ones that have left the window are skipped by moving its head: a call
// costs constant time, amortised, when calls come in time order, where a pass over all stored times would let the
// caller choose the cost of its own calls. Sorting also makes late calls exact: which times are left, and so every
// result, depends on the set of times alone. Capacity is kept for the next calls and given back when it is far too
// large, so a steady rate allocates nothing.
//
// Memory: eight bytes for each call inside the window, twice that at most besides spare capacity.
// Thread: the owner's thread. Throws nothing but std::bad_alloc.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

namespace Engine {

class RateLimiter {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // Counts a call made at `now`, in any order. A time leaves when the latest one is more than `window` (seconds)
    // past it: one exactly `window` old still counts, and the latest always does. True while at most `maxCount` times
    // are inside, this one included. A call over the limit counts like any other.
    bool Update(const std::chrono::duration<long>& window, unsigned short maxCount, TimePoint now);

    // Whether every call has left the window at `now`: if no later call of Update carries a time before `now`, a new
    // limiter in its place gives the same results.
    bool IsIdle(const std::chrono::duration<long>& window, TimePoint now) const
    {
        return times.empty() || now - times.back() > window;
    }

    // Times inside the window, as of the last call.
    std::size_t Size() const { return times.size() - head; }

private:
    void Insert(TimePoint now);
    void Compact();

    std::vector<TimePoint> times;  // ascending from `head` on; what stands before has left the window
    std::size_t head = 0;
};

}  // namespace Engine
