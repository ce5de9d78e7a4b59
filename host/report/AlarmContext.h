// SPDX-License-Identifier: Apache-2.0
// What is known about the process of an alarm at the moment at which the alarm is raised.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/report/Alarm.h"
#include "host/sdk/SystemView.h"

namespace Engine {

struct AlarmContext {
    // Of the event that the alarm is about, on CLOCK_MONOTONIC. Nothing for an alarm without one.
    std::optional<std::chrono::nanoseconds> event;
    // The rest only where it is asked for.
    // What CLOCK_REALTIME was ahead of CLOCK_MONOTONIC then.
    std::chrono::nanoseconds clockOffset{0};
    // That event, when it is a system call: its name, and its arguments as they were recorded.
    std::string call;
    std::vector<std::pair<std::string, std::int64_t>> arguments;
    int tid = 0;
    std::string container;  // of the process, as the host knows it; empty: of none
    // The process, if it lives or its exec was recorded, and its ancestors in its container, the parent first.
    std::optional<SDK::ProcessDetails> process;
    std::vector<SDK::ProcessDetails> ancestors;

    static constexpr std::size_t maxAncestors = 16;

    // Of the event alone. Thread: as Take.
    static std::shared_ptr<const AlarmContext> OfEvent();

    // Thread: the one that raises the alarm, while it handles the event.
    static std::shared_ptr<const AlarmContext> Take(const Alarm& alarm, SDK::SystemView& system);
};

}  // namespace Engine
