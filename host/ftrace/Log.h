// SPDX-License-Identifier: Apache-2.0
// The log sites of this folder: TraceLog::Warning("...", ...). See LogSite.h for the texts.
#pragma once

#include "LogSite.h"

namespace Engine {

struct TraceLogger {
    static Poco::Logger* Logger()
    {
        static Poco::Logger* const logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace_module", false);
        return logger;
    }
};

using TraceLog = SDK::LogSite<TraceLogger>;

}  // namespace Engine
