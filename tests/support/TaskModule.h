// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <utility>

#include "framework/Module.h"

namespace Support {

// Adds one task to the agent, which then owns it.
class TaskModule : public Framework::Module {
public:
    explicit TaskModule(std::unique_ptr<Framework::Task> task)
        : Module("module of " + task->name()), task(std::move(task))
    {
    }
    int Init() override { return RegisterTask(task.release(), true); }

private:
    std::unique_ptr<Framework::Task> task;
};

}  // namespace Support
