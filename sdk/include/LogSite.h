// SPDX-License-Identifier: Apache-2.0
// One statement for each log site, header-only:
//
//     SDK::RootLog::Warning("could not find task: %s", taskName);
//     SDK::RootLog::Debug(SDK::At{"WatchHandles", 41}, "registered: %s", taskName);
//
// A site whose logger is absent or above its priority costs one comparison: nothing is formatted or allocated. The
// texts are Poco::format's (a %s takes a string, %d an int, %?d and %?u any integer, %z a std::size_t, %b a bool). What
// goes wrong while a line is formatted or written is swallowed: logging never ends an operation. Any thread.
#pragma once

#include <Poco/Any.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "sdk/LoggerUtils.h"

namespace SDK {

// The position that a log record carries. `file` must live as long as the process: records refer to it.
struct At {
    const char* file;
    int line;
};

// A format text and, unless the site fixes another position, the place where it stands in the source.
struct LogText {
    // Implicit, so that a site reads as a call with a text. The builtins name the caller's place, as
    // std::source_location does, which not every compiler of this code has.
    LogText(const char* text, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : text(text), at{BaseName(file), line}
    {
    }

    // For a site whose position is fixed.
    LogText(At at, const char* text) : text(text), at(at) {}

    static const char* BaseName(const char* path)
    {
        const char* slash = std::strrchr(path, '/');
        return slash == nullptr ? path : slash + 1;
    }

    const char* text;
    At at;
};

namespace LogDetail {

inline Poco::Any ToAny(const std::string& value)
{
    return value;
}
inline Poco::Any ToAny(std::string_view value)
{
    return std::string{value};
}
inline Poco::Any ToAny(const char* value)
{
    return std::string{value};
}
template <class T>
Poco::Any ToAny(const T& value)
{
    return value;
}

}  // namespace LogDetail

inline bool Admits(const Poco::Logger* logger, Poco::Message::Priority priority)
{
    return logger != nullptr && logger->is(priority);
}

// Writes one record to `logger`, null or above `priority` for none. `text` is a Poco::format text. Never inlined: it
// would make every function that has a site keep registers for what hardly ever happens.
template <class... Args>
[[gnu::cold]] [[gnu::noinline]] void LogTo(Poco::Logger* logger, Poco::Message::Priority priority, At at,
                                           const char* text, const Args&... args)
{
    if (!Admits(logger, priority)) {
        return;
    }
    try {
        std::string formatted;
        Poco::format(formatted, text, std::vector<Poco::Any>{LogDetail::ToAny(args)...});
        logger->log(Poco::Message{logger->name(), formatted, priority, at.file, at.line});
    } catch (...) {  // NOLINT(bugprone-empty-catch): a line that cannot be written must not end the operation
    }
}

// The log sites of one logger: using TraceLog = SDK::LogSite<SDK::NamedLogger<"ftrace_module">>. Source::Logger() gives
// the logger: a Poco::Logger*, null for none.
template <class Source>
class LogSite {
    template <Poco::Message::Priority priority>
    struct Writer {
        template <class... Args>
        void operator()(LogText text, const Args&... args) const
        {
            if (Admits(priority)) {
                LogTo(Source::Logger(), priority, text.at, text.text, args...);
            }
        }
        template <class... Args>
        void operator()(At at, const char* text, const Args&... args) const
        {
            (*this)(LogText{at, text}, args...);
        }
    };

public:
    static bool Admits(Poco::Message::Priority priority) noexcept
    {
        try {
            return SDK::Admits(Source::Logger(), priority);
        } catch (...) {
            return false;
        }
    }

    static constexpr Writer<Poco::Message::PRIO_ERROR> Error{};
    static constexpr Writer<Poco::Message::PRIO_WARNING> Warning{};
    static constexpr Writer<Poco::Message::PRIO_NOTICE> Notice{};
    static constexpr Writer<Poco::Message::PRIO_INFORMATION> Information{};
    static constexpr Writer<Poco::Message::PRIO_DEBUG> Debug{};
    static constexpr Writer<Poco::Message::PRIO_TRACE> Trace{};
};

struct RootLogger {
    static Poco::Logger* Logger() { return LoggerUtils::GetInstance()->GetRootLogger(); }
};

using RootLog = LogSite<RootLogger>;

// A text as a template argument.
template <std::size_t size>
struct LoggerName {
    constexpr LoggerName(const char (&name)[size]) { std::copy_n(name, size, text); }  // implicit, as a text is given

    char text[size];
};

// The logger of a component by its name, looked up once.
template <LoggerName name>
struct NamedLogger {
    static Poco::Logger* Logger()
    {
        static Poco::Logger* const logger = LoggerUtils::GetInstance()->GetModuleLogger(name.text, false);
        return logger;
    }
};

}  // namespace SDK
