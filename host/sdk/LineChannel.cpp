// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/LineChannel.h"

#include <Poco/DateTimeFormatter.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "host/sdk/Counters.h"
#include "host/sdk/SafeText.h"
#include "sdk/PathUtils.h"

namespace SDK {

namespace {

// By Poco::Message::Priority; 0 is none of them.
constexpr std::array<const char*, 9> priorityNames{"none",   "fatal",       "critical", "error", "warning",
                                                   "notice", "information", "debug",    "trace"};

const char* NameOf(int priority)
{
    const auto index = static_cast<std::size_t>(priority);
    return priority > 0 && index < priorityNames.size() ? priorityNames[index] : priorityNames[0];
}

}  // namespace

std::string FormatRecord(const Poco::Message& record)
{
    std::string line = Poco::DateTimeFormatter::format(record.getTime(), "%Y-%m-%dT%H:%M:%S.%iZ");
    line += ' ';
    line += NameOf(record.getPriority());
    line += ' ';
    SafeText::AppendEscaped(line, record.getSource().empty() ? "root" : record.getSource());
    line += ": ";
    SafeText::AppendEscaped(line, record.getText());
    if (record.getSourceFile() != nullptr) {
        line += " [";
        SafeText::AppendEscaped(line, PathUtils::GetFileNameFromPath(record.getSourceFile()));
        line += ':' + std::to_string(record.getSourceLine()) + ']';
    }
    line += '\n';
    return line;
}

void LineChannel::log(const Poco::Message& record)
{
    const std::string line = FormatRecord(record);
    const std::lock_guard lock(mutex);
    Write(isMidLine ? '\n' + line : line);
}

void LineChannel::Write(const std::string& line)
{
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t written = ::write(fd, line.data() + done, line.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            static Counters::Counter& lost = Counters::Get(CounterName::logLost);
            ++lost;
            isMidLine = isMidLine || done > 0;
            return;
        }
        done += static_cast<std::size_t>(written);
    }
    isMidLine = false;
}

}  // namespace SDK
