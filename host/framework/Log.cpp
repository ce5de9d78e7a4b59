// SPDX-License-Identifier: Apache-2.0
#include "host/framework/Log.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <exception>

#include "sdk/LoggerUtils.h"

namespace Framework {

void LogAt(Poco::Message::Priority priority, const char* format, ...)
{
    constexpr std::size_t longestLine = 1024;
    std::array<char, longestLine> text{};
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer does not see va_start's effect here
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    try {
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetRootLogger();
        if (logger->getLevel() >= priority) {
            logger->log(Poco::Message(logger->name(), text.data(), priority));
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is nowhere left to say it
    }
}

std::string CurrentExceptionText()
{
    try {
        throw;
    } catch (const Poco::Exception& error) {
        return error.displayText();
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace Framework
