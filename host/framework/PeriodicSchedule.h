// SPDX-License-Identifier: Apache-2.0
// When a periodic task runs next. A run that takes longer than a period skips what it missed and keeps to the grid
// of start + firstDelay + n * period; nothing is caught up.
// Ownership: none.   Thread: that of its task, no lock inside.
#pragma once

#include <chrono>
#include <optional>

namespace Framework {

class PeriodicSchedule {
public:
    using Clock = std::chrono::steady_clock;

    // A negative `firstDelay` counts as 0. A `period` of 0 or less means never: a task without a policy does not run.
    PeriodicSchedule(std::chrono::seconds firstDelay, std::chrono::seconds period, Clock::time_point start);

    // Time left until the next run, 0 when it is due, nothing when there will be none.
    std::optional<std::chrono::milliseconds> Remaining(Clock::time_point now) const;

    // Moves on to the first instant of the grid after `now`.
    void MarkRun(Clock::time_point now);

private:
    std::chrono::seconds period;
    Clock::time_point next;
};

}  // namespace Framework
