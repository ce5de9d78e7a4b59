// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>

namespace SDK {

// Until when a writer may wait for its reader: without limit while the agent runs, a short while when it stops.
// Any thread. A wait looks at it every few milliseconds, as it may be set meanwhile.
class StopDeadline {
public:
    using Clock = std::chrono::steady_clock;

    // Only the first call counts.
    void Set(std::chrono::milliseconds fromNow)
    {
        Clock::rep none = noLimit;
        deadline.compare_exchange_strong(none, (Clock::now() + fromNow).time_since_epoch().count());
    }

    bool HasPassed() const { return Clock::now().time_since_epoch().count() >= deadline; }

private:
    static constexpr Clock::rep noLimit = Clock::duration::max().count();

    std::atomic<Clock::rep> deadline{noLimit};
};

}  // namespace SDK
