// SPDX-License-Identifier: Apache-2.0
// One alarm on its way to the sinks, as the line that each of them writes.
#pragma once

#include <json/value.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/report/Alarm.h"

namespace Engine {

// Shared by the queues of the sinks. Counted once however many sinks there are: "alarms.sent" when every sink wrote it,
// "alarms.lost" when one did not. Any thread.
class AlarmDocument {
public:
    // `sinks`: how many will report their result, at least 1. `form` makes the line, given the document in printable
    // ASCII and parsed; none: the document is the line.
    using Form = std::function<std::string(const std::string& text, const Json::Value& document)>;
    static std::shared_ptr<AlarmDocument> Make(const Alarm& alarm, std::size_t sinks, const Form& form = {});

    // `classId`: of the alarm, for its counter; empty: none.
    AlarmDocument(std::string line, std::size_t sinks, std::string classId = {})
        : line(std::move(line)), classId(std::move(classId)), pending(sinks)
    {
    }

    // Printable, with the newline at its end: nothing that a process name or a label holds can break the line or
    // reach a terminal as a control sequence.
    const std::string& Line() const { return line; }

    // When what the alarm is about happened, on CLOCK_MONOTONIC, for the histogram of latencies (SDK::AlarmLatency).
    // Before the sinks have it.
    void SetEvent(std::optional<std::chrono::nanoseconds> when) { event = when; }

    // The result of one sink, once for each. The last one counts the document.
    void Finish(bool written);

    // An alarm that never became a document.
    static void CountLost();

private:
    void CountSent() const;

    const std::string line;
    const std::string classId;
    std::optional<std::chrono::nanoseconds> event;
    std::atomic<std::size_t> pending;
    std::atomic<bool> isLost{false};
};

}  // namespace Engine
