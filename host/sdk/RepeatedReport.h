// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <utility>

namespace SDK {

// For what repeats, perhaps for each event: the first occurrence is worth a log record at once, later ones one record a
// minute, which gives their sum. Thread: one at a time.
class RepeatedReport {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::minutes pause{1};

    void Add(std::uint64_t occurrences) { unreported += occurrences; }

    bool IsEmpty() const { return unreported == 0; }

    // How many occurrences the record stands for that is due now. 0: none is.
    std::uint64_t TakeDue(Clock::time_point now)
    {
        if (unreported == 0 || now < quietUntil) {
            return 0;
        }
        quietUntil = now + pause;
        return TakeAll();
    }

    // One more occurrence, and what is due now.
    std::uint64_t Occurred(Clock::time_point now)
    {
        Add(1);
        return TakeDue(now);
    }

    // What was not reported yet, for the last record before the end.
    std::uint64_t TakeAll() { return std::exchange(unreported, 0); }

private:
    std::uint64_t unreported = 0;
    Clock::time_point quietUntil = Clock::time_point::min();
};

}  // namespace SDK
