// SPDX-License-Identifier: Apache-2.0
// The log sites of this folder: NotifyLog::Warning("...", ...). See LogSite.h for the texts.
#pragma once

#include <chrono>
#include <cstdint>
#include <utility>

#include "LogSite.h"

namespace Engine {

struct NotifyLogger {
    static Poco::Logger* Logger()
    {
        static Poco::Logger* const logger =
            SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", false);
        return logger;
    }
};

using NotifyLog = SDK::LogSite<NotifyLogger>;

// What repeats: counts, and says at most once a minute that it is worth a log record.
class RepeatedReport {
public:
    // How many occurrences the record that is now due stands for, this one included; 0: none is due.
    std::uint64_t Occurred(std::chrono::steady_clock::time_point now)
    {
        ++unsaid;
        if (said && now - lastSaid < std::chrono::minutes{1}) {
            return 0;
        }
        said = true;
        lastSaid = now;
        return std::exchange(unsaid, 0);
    }

private:
    bool said = false;
    std::chrono::steady_clock::time_point lastSaid;
    std::uint64_t unsaid = 0;
};

}  // namespace Engine
