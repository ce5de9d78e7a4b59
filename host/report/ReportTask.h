// SPDX-License-Identifier: Apache-2.0
// What both report tasks share: an event loop that handles messages, the last ones at the stop.
#pragma once

#include <string>

#include "framework/Task.h"

namespace Engine {

class ReportTask : public Framework::Task {
public:
    // A task without a feature: it starts at once and waits for no policy.
    explicit ReportTask(const std::string& taskName);

    int Run() override;
    int UnInit() override;  // handles what is still queued
};

}  // namespace Engine
