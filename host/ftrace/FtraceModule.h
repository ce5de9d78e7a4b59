// SPDX-License-Identifier: Apache-2.0
// The module "ftrace_module": makes the task "ftrace_task".
#pragma once

#include <memory>

#include "framework/Module.h"

namespace Engine {

class TraceTask;

class FtraceModule : public Framework::Module {
public:
    FtraceModule();
    ~FtraceModule() override;

    // Removes what dead agents left, makes the trace instance and registers the task. Non-zero, with a log line that
    // says what to do, when there are no trace events to be had; then there is no task either.
    int Init() override;
    int UnInit() override;

private:
    std::unique_ptr<TraceTask> task;
};

}  // namespace Engine

extern "C" Framework::Module* CreateModule();
