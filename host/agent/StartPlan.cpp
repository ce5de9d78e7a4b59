// SPDX-License-Identifier: Apache-2.0
#include "host/agent/StartPlan.h"

#include <system_error>

#include "host/agent/Console.h"
#include "host/agent/EngineOptions.h"
#include "host/agent/Machine.h"
#include "host/agent/StatusReport.h"

namespace Agent {

namespace {

constexpr char noEntries[] =
    R"({"content": {"image_white_namelist": [],
                    "container_escape_detect_task": {"highrisk_calls": [], "host_directorys": []}}})";

}  // namespace

StartPlan MakePlan(const Options& options)
{
    StartPlan plan{options,
                   options.policyFile.empty() ? ParsePolicy(noEntries) : LoadPolicy(options.policyFile),
                   ModulePaths(options),
                   options.warnings,
                   EnginesOf(options),
                   {},
                   {}};
    if (!options.alarmsFile.empty()) {
        plan.alarmsLock = CheckAlarmsFile(options.alarmsFile, plan.warnings);
    }
    if (!options.statsFile.empty()) {
        if (const std::error_code error = WriteStatistics(options.statsFile, {})) {
            throw BadInput("statistics file " + options.statsFile + ": " + error.message());
        }
    }
    if (!options.metricsAddress.empty()) {
        plan.metrics = MetricsListener(options.metricsAddress);
    }
    return plan;
}

}  // namespace Agent
