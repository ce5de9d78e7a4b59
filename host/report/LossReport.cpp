// SPDX-License-Identifier: Apache-2.0
#include "host/report/LossReport.h"

#include "host/report/ReportLog.h"

namespace Engine {

LossReport::LossReport(const std::string& sink) : sink(sink), total(SDK::Counters::Get("alarms.lost_" + sink))
{
}

void LossReport::Add(const std::string& reason)
{
    total.fetch_add(1);
    const std::lock_guard lock(mutex);
    ++untold;
    lastReason = reason;
    const auto now = std::chrono::steady_clock::now();
    if (now >= nextTelling) {
        nextTelling = now + interval;
        Tell();
    }
}

void LossReport::Flush()
{
    const std::lock_guard lock(mutex);
    if (untold != 0) {
        Tell();
    }
}

void LossReport::Tell()
{
    ReportLog::Warning("sink %s lost %?u alarms (%s), going on", sink, untold, lastReason);
    untold = 0;
}

}  // namespace Engine
