// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/NotifyLog.h"

#include <Poco/Logger.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {

// Paths are the longest thing that is said here (PATH_MAX).
constexpr std::size_t longestRecord = 4096 + 256;

void Log(Poco::Message::Priority priority, const char* format, va_list arguments)
{
    try {
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", false);
        if (!logger->is(priority)) {
            return;
        }
        std::array<char, longestRecord> text{};
        std::vsnprintf(text.data(), text.size(), format, arguments);
        logger->log(Poco::Message{logger->name(), text.data(), priority});
    } catch (...) {  // NOLINT(bugprone-empty-catch): a record that cannot be written is not worth the task
    }
}

}  // namespace

void NotifyWarning(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Log(Poco::Message::PRIO_WARNING, format, arguments);
    va_end(arguments);
}

void NotifyNotice(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Log(Poco::Message::PRIO_NOTICE, format, arguments);
    va_end(arguments);
}

}  // namespace Engine
