// SPDX-License-Identifier: Apache-2.0
// What both report tasks share: they handle messages as any event loop does, and the last ones at the stop.
#pragma once

#include <string>

#include "framework/Task.h"

namespace Engine {

class ReportTask : public Framework::Task {
public:
    // A task without a feature: it starts at once and waits for no policy.
    explicit ReportTask(const std::string& taskName);

    int UnInit() override;  // handles what is still queued
};

}  // namespace Engine
