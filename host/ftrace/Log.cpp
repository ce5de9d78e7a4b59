// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/Log.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "sdk/LoggerUtils.h"

namespace Engine {
namespace {

[[gnu::format(printf, 2, 0)]] void Write(Poco::Message::Priority priority, const char* format, va_list arguments)
{
    try {
        static Poco::Logger* const logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace_module", false);
        if (logger->getLevel() < priority) {
            return;
        }
        std::array<char, 1024> text{};
        std::vsnprintf(text.data(), text.size(), format, arguments);
        logger->log(Poco::Message{logger->name(), text.data(), priority});
    } catch (...) {
        return;  // nobody is left to tell
    }
}

}  // namespace

void LogError(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Write(Poco::Message::PRIO_ERROR, format, arguments);
    va_end(arguments);
}

void LogWarning(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Write(Poco::Message::PRIO_WARNING, format, arguments);
    va_end(arguments);
}

void LogInformation(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Write(Poco::Message::PRIO_INFORMATION, format, arguments);
    va_end(arguments);
}

void LogDebug(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Write(Poco::Message::PRIO_DEBUG, format, arguments);
    va_end(arguments);
}

}  // namespace Engine
