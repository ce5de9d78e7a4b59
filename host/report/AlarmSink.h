// SPDX-License-Identifier: Apache-2.0
// Where alarms go: standard output, a file, and whatever is added beside them.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <string_view>
#include <system_error>

namespace Engine {

// Until when a sink may wait for its reader: without limit while the agent runs, a short while when it stops.
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

// Thread: all calls of one sink come from the one thread of its SinkQueue, so a sink may block there: that delays no
// other sink. It must give up when the deadline has passed, or the agent cannot stop.
class AlarmSink {
public:
    AlarmSink() = default;
    AlarmSink(const AlarmSink&) = delete;
    AlarmSink& operator=(const AlarmSink&) = delete;
    virtual ~AlarmSink() = default;

    // A short word that names the sink in the log and in its counter "alarms.lost_<name>".
    virtual std::string Name() const = 0;

    // `line`: one JSON document in printable ASCII and the newline that ends it. An error means that the line is lost;
    // the next call may succeed again. std::errc::timed_out: the deadline has passed.
    virtual std::error_code Write(std::string_view line, const StopDeadline& deadline) = 0;
};

}  // namespace Engine
