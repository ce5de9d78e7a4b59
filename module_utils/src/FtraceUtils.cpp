// SPDX-License-Identifier: Apache-2.0
#include "FtraceUtils.h"

#include "LogSite.h"

namespace Engine::FtraceUtils {

bool RegisterFtraceEvent(Framework::Task* task, std::list<FtraceWatchHandle>& handles, const std::string& system,
                         const std::string& event)
{
    SDK::RootLog::Debug(SDK::At{"FtraceUtils", 34}, "Watching ftrace: %s:%s", system, event);
    return handles.emplace_back(task, system, event).Valid();
}

void RegisterFtraceEvents(Framework::Task* task, std::list<FtraceWatchHandle>& handles,
                          const std::list<std::pair<std::string, std::string>>& events)
{
    for (const auto& [system, event] : events) {
        if (!RegisterFtraceEvent(task, handles, system, event)) {
            SDK::RootLog::Warning(SDK::At{"FtraceUtils", 47}, "Watching ftrace %s:%s failed. Skipping", system, event);
        }
    }
}

unsigned int NormaliseDevice(unsigned int dev)
{
    return ((dev & 0x0FF00000U) >> 12U) | (dev & 0xFFU);
}

}  // namespace Engine::FtraceUtils
