// SPDX-License-Identifier: Apache-2.0
// The time of the trace event that is being delivered on this thread. What is asked meanwhile about a process can then
// be answered as of that time, however late the event is handled.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace SDK {

class TraceTime {
public:
    // Empty while no event is being delivered on this thread. The clock is CLOCK_MONOTONIC.
    static std::optional<std::chrono::nanoseconds> Current();

    // Sets the time for its own lifetime and restores the one before. MoveTo is one store.
    class Scope {
    public:
        Scope();
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;
        void MoveTo(std::chrono::nanoseconds when);

    private:
        std::int64_t before;
    };
};

}  // namespace SDK
