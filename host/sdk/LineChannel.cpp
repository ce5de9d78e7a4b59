// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/LineChannel.h"

#include <Poco/DateTimeFormatter.h>
#include <pthread.h>
#include <signal.h>

#include <array>
#include <system_error>
#include <utility>

#include "host/sdk/Counters.h"
#include "host/sdk/LineStream.h"
#include "host/sdk/SafeText.h"
#include "sdk/PathUtils.h"

namespace SDK {

namespace {

// By Poco::Message::Priority; 0 is none of them.
constexpr std::array<const char*, 9> priorityNames{"none",   "fatal",       "critical", "error", "warning",
                                                   "notice", "information", "debug",    "trace"};

// The main thread takes the agent's signals; a write to a pipe without a reader then fails with EPIPE.
void BlockSignals()
{
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

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
    std::string line = FormatRecord(record);
    const std::lock_guard lock(mutex);
    if (queuedBytes + line.size() > maxQueuedBytes) {
        Lost();
        return;
    }
    if (!thread.joinable()) {
        thread = std::thread([this] { Work(); });
    }
    queuedBytes += line.size();
    lines.push_back(std::move(line));
    changed.notify_all();
}

void LineChannel::Flush(std::chrono::milliseconds bound)
{
    std::unique_lock lock(mutex);
    changed.wait_for(lock, bound, [this] { return queuedBytes == 0; });
}

LineChannel::~LineChannel()
{
    deadline.Set(std::chrono::milliseconds{0});
    {
        const std::lock_guard lock(mutex);
        isEnding = true;
        changed.notify_all();
    }
    if (thread.joinable()) {
        thread.join();
    }
}

void LineChannel::Work()
{
    BlockSignals();
    ::pthread_setname_np(::pthread_self(), "log");
    std::error_code error;
    LineStream stream = LineStream::Duplicate(fd, error);
    std::unique_lock lock(mutex);
    while (changed.wait(lock, [this] { return isEnding || !lines.empty(); }), !lines.empty()) {
        std::string line = std::move(lines.front());
        lines.pop_front();
        const std::size_t bytes = line.size();
        const std::uint64_t said = std::exchange(unsaidLosses, 0);
        if (said != 0) {
            line.insert(
                0, FormatRecord({"log", std::to_string(said) + " records were lost", Poco::Message::PRIO_WARNING}));
        }
        lock.unlock();
        error = stream.Write(line, deadline);
        lock.lock();
        if (error) {
            unsaidLosses += said;
            Lost();
        }
        queuedBytes -= bytes;
        changed.notify_all();
    }
}

void LineChannel::Lost()
{
    static Counters::Counter& lost = Counters::Get(CounterName::logLost);
    ++lost;
    ++unsaidLosses;
}

}  // namespace SDK
