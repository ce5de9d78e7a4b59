// SPDX-License-Identifier: Apache-2.0
// What is known about the process of an alarm at the moment at which the alarm is raised.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/Message.h"
#include "host/sdk/SystemView.h"

namespace Engine {

struct AlarmContext {
    // Of the event that the alarm is about, on CLOCK_REALTIME. Nothing for an alarm without one.
    std::optional<std::chrono::nanoseconds> time;
    int tid = 0;
    // The process, if it lives still, and its ancestors in its container, the parent first.
    std::optional<SDK::ProcessDetails> process;
    std::vector<SDK::ProcessDetails> ancestors;

    static constexpr std::size_t maxAncestors = 16;

    // `alarm`: the document. Thread: the one that raises the alarm, while it handles the event.
    static std::shared_ptr<const AlarmContext> Take(const std::string& alarm, SDK::SystemView& system);
};

// An alarm on its way to the report task.
class AlarmReport : public Framework::DataMessage {
public:
    AlarmReport(const Framework::DataMessage& alarm, std::shared_ptr<const AlarmContext> context)
        : Framework::DataMessage(alarm.Type(), alarm.Content()), context(std::move(context))
    {
    }

    const std::shared_ptr<const AlarmContext>& Context() const { return context; }

private:
    std::shared_ptr<const AlarmContext> context;
};

}  // namespace Engine
