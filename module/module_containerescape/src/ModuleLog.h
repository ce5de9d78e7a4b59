// SPDX-License-Identifier: Apache-2.0
// The module's log sites: ModuleLog::Debug("shocker got event %d, state is %d", pid, state). See LogSite.h. Everything
// is written to the module's logger; the sources of module_utils and the alarm filter use SDK::RootLog instead.
#pragma once

#include "ContainerEscapeUtil.h"
#include "LogSite.h"

namespace Engine {

struct ModuleLogger {
    // Kept here too, so that a site that is above its priority costs no call.
    static Poco::Logger* Logger()
    {
        static Poco::Logger* const logger = ContainerEscapeUtil::GetLoggerPtr();
        return logger;
    }
};

using ModuleLog = SDK::LogSite<ModuleLogger>;
using SDK::At;

}  // namespace Engine
