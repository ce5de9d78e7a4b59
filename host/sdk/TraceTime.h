// SPDX-License-Identifier: Apache-2.0
// The time of the trace event that is being delivered on this thread. What is asked meanwhile about a process can then
// be answered as of that time, however late the event is handled. And the event itself, for what tells about it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace SDK {

// The event that is being delivered.
class DeliveredEvent {
public:
    virtual const std::string& Name() const = 0;  // "syscalls:sys_enter_mount"
    // Its fields that are numbers, but for those that all events have; in their order, as they were recorded.
    virtual std::vector<std::pair<std::string, std::int64_t>> Numbers() const = 0;

    // The thread that made it, as it was then. The name is good as long as the event is being delivered.
    struct Caller {
        int thread = 0;
        std::string_view name;  // the kernel's command name
        int parent = 0;         // the process that is its process's parent
    };
    // Nothing where the record does not tell.
    virtual std::optional<Caller> MadeBy() const = 0;

protected:
    ~DeliveredEvent() = default;
};

class TraceTime {
public:
    // Empty while no event is being delivered on this thread. The clock is CLOCK_MONOTONIC.
    static std::optional<std::chrono::nanoseconds> Current();

    // Null while none is. Good as long as it is being delivered.
    static const DeliveredEvent* Event();

    // Sets the time for its own lifetime and restores the one before. MoveTo is two stores.
    class Scope {
    public:
        Scope();
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;
        // `event`: not owned.
        void MoveTo(std::chrono::nanoseconds when, const DeliveredEvent* event = nullptr);

    private:
        std::int64_t before;
        const DeliveredEvent* eventBefore;
    };
};

}  // namespace SDK
