// SPDX-License-Identifier: Apache-2.0
// The modules' tasks that the agent itself has to do with.
#pragma once

#include <vector>

#include "framework/Engine.h"
#include "host/ftrace/TraceStatus.h"
#include "host/report/Exceptions.h"

namespace Agent::Tasks {

inline constexpr char detection[] = "container_escape_detect_task";
inline constexpr char report[] = "data_comm_report_task";
inline constexpr char trace[] = "ftrace_task";
inline constexpr char collector[] = "container_collect_task";
inline constexpr char fileNotify[] = "filenotify_task";

// Null when there is no trace.
inline ::Engine::TraceStatus* Trace(Framework::Engine& engine)
{
    return dynamic_cast<::Engine::TraceStatus*>(engine.FindTask(trace));
}

// What the report task goes by from now on.
inline void GiveExceptions(Framework::Engine& engine, const std::vector<SDK::ExceptionRule>& rules)
{
    if (auto* taker = dynamic_cast<::Engine::ExceptionTaker*>(engine.FindTask(report)); taker != nullptr) {
        taker->TakeExceptions(rules);
    }
}

}  // namespace Agent::Tasks
