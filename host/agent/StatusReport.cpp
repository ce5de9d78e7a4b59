// SPDX-License-Identifier: Apache-2.0
#include "host/agent/StatusReport.h"

#include <fcntl.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include "host/sdk/Counters.h"
#include "host/sdk/FileDescriptor.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

namespace Name = SDK::CounterName;

constexpr mode_t statisticsMode = 0644;

std::uint64_t Sum(const CounterValues& counters, std::initializer_list<const char*> names)
{
    std::uint64_t sum = 0;
    for (const char* name : names) {
        const auto found = counters.find(name);
        sum += found == counters.end() ? 0 : found->second;
    }
    return sum;
}

}  // namespace

std::string StatusLine(const CounterValues& counters)
{
    const std::array<std::pair<const char*, std::uint64_t>, 11> values{{
        {"events_read", Sum(counters, {Name::traceRead, Name::notifyRead})},
        {"lost_kernel", Sum(counters, {Name::traceLostOverrun, Name::traceLostDropped, Name::traceLostLives})},
        {"shed_kernel", Sum(counters, {Name::traceShedKernel})},
        {"shed", Sum(counters, {Name::traceShed})},
        // Every task's queue, those of the subscribers included.
        {"lost_queues", Sum(counters, {Name::queueLost})},
        {"notify_overflows", Sum(counters, {Name::notifyOverflow})},
        {"not_container", Sum(counters, {Name::traceNotContainer, Name::notifyNotContainer})},
        {"alarms_sent", Sum(counters, {Name::alarmsSent})},
        {"alarms_lost", Sum(counters, {Name::alarmsLost})},
        {"demoted", Sum(counters, {Name::demoted})},
        {"excepted", Sum(counters, {Name::alarmsExcepted})},
    }};
    std::string line;
    for (const auto& [key, value] : values) {
        line += (line.empty() ? "" : " ") + std::string(key) + "=" + std::to_string(value);
    }
    return line;
}

std::error_code WriteStatistics(const std::string& path, const CounterValues& counters)
{
    Json::Value root(Json::objectValue);
    for (const auto& [name, value] : counters) {
        root[name] = Json::UInt64{value};
    }
    const std::string text = SDK::JsonUtils::JsonToString(root) + "\n";
    // A name that cannot be guessed and an exclusive open: the directory may be one that others write to.
    std::string draft = path + ".XXXXXX";
    const SDK::FileDescriptor file(::mkostemp(draft.data(), O_CLOEXEC));
    if (!file) {
        return {errno, std::generic_category()};
    }
    // A file takes less than the whole only when there is no room for more (write(2)).
    const ssize_t written = ::write(file.Get(), text.data(), text.size());
    std::error_code error;
    if (written >= 0 && static_cast<std::size_t>(written) < text.size()) {
        error = std::make_error_code(std::errc::no_space_on_device);
    } else if (written < 0 || ::fchmod(file.Get(), statisticsMode) != 0 ||
               std::rename(draft.c_str(), path.c_str()) != 0) {
        error.assign(errno, std::generic_category());
    }
    if (error) {
        ::unlink(draft.c_str());
    }
    return error;
}

}  // namespace Agent
