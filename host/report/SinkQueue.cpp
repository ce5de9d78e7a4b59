// SPDX-License-Identifier: Apache-2.0
#include "host/report/SinkQueue.h"

#include <pthread.h>
#include <signal.h>

#include <exception>
#include <utility>

#include "host/report/ReportLog.h"
#include "host/sdk/Realtime.h"

namespace Engine {

namespace {

// The main thread takes the agent's signals. SIGPIPE belongs to the thread that writes (pipe(7)): blocked, it leaves
// EPIPE to tell of a reader that went away.
void BlockSignals()
{
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

}  // namespace

SinkQueue::SinkQueue(std::unique_ptr<AlarmSink> sinkToServe, std::size_t capacity)
    : sink(std::move(sinkToServe)),
      capacity(capacity),
      lost(SDK::Counters::Get("alarms.lost_" + sink->Name())),
      refused(SDK::Counters::Get(SDK::CounterName::alarmsRefused)),
      thread([this] { Work(); })
{
}

SinkQueue::~SinkQueue()
{
    End(std::chrono::milliseconds{0});
    thread.join();
}

void SinkQueue::Push(std::shared_ptr<AlarmDocument> document)
{
    {
        const std::lock_guard lock(mutex);
        if (!isEnding && documents.size() < capacity) {
            documents.push_back(std::move(document));
            changed.notify_one();
            return;
        }
    }
    Lose(*document, "its queue is full");
}

void SinkQueue::End(std::chrono::milliseconds bound)
{
    deadline.Set(bound);
    const std::lock_guard lock(mutex);
    isEnding = true;
    changed.notify_one();
}

void SinkQueue::Work()
{
    BlockSignals();
    ::pthread_setname_np(::pthread_self(), "alarm_sink");
    SDK::Realtime::Enter("alarm_sink");
    while (const auto document = Next()) {
        SDK::Realtime::Watch();
        std::string failure = Deliver(**document);
        while (!failure.empty() && KeepBack(**document, failure)) {
            failure = Deliver(**document);
        }
        if (failure.empty()) {
            (*document)->Finish(true);
        } else {
            Lose(**document, failure);
        }
        shown -= shown > 0 ? 1 : 0;
    }
    const std::lock_guard lock(mutex);
    if (const auto unreported = losses.TakeAll(); unreported != 0) {
        ReportLog::Warning("sink %s lost %?u more alarms", sink->Name(), unreported);
    }
}

// Empty: the end has come and nothing is left.
std::optional<std::shared_ptr<AlarmDocument>> SinkQueue::Next()
{
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return isEnding || !documents.empty(); });
    if (documents.empty()) {
        return std::nullopt;
    }
    std::shared_ptr<AlarmDocument> next = std::move(documents.front());
    documents.pop_front();
    return next;
}

// Waits for the next attempt. What is kept back meanwhile, the documents behind it too, goes to standard error, so that
// it is seen now. False: the end has come.
bool SinkQueue::KeepBack(const AlarmDocument& document, const std::string& failure)
{
    std::vector<std::shared_ptr<AlarmDocument>> unseen;
    std::unique_lock lock(mutex);
    if (isEnding) {
        return false;
    }
    ++refused;
    const bool isFirst = shown == 0;
    for (std::size_t i = isFirst ? 0 : shown - 1; i < documents.size(); ++i) {
        unseen.push_back(documents[i]);
    }
    shown = 1 + documents.size();
    lock.unlock();
    if (isFirst) {
        Show(document, failure);
    }
    for (const std::shared_ptr<AlarmDocument>& next : unseen) {
        Show(*next, failure);
    }
    lock.lock();
    changed.wait_for(lock, retryPause, [this] { return isEnding; });
    return true;
}

void SinkQueue::Show(const AlarmDocument& document, const std::string& failure)
{
    static SDK::Counters::Counter& deferred = SDK::Counters::Get(SDK::CounterName::alarmsDeferred);
    ++deferred;
    ReportLog::Error("sink %s: %s, trying again: %s", sink->Name(), failure,
                     document.Line().substr(0, document.Line().size() - 1));
}

// Why the sink did not take it; empty when it did.
std::string SinkQueue::Deliver(const AlarmDocument& document)
{
    constexpr char outOfTime[] = "no time left at the stop";
    if (deadline.HasPassed()) {
        return outOfTime;
    }
    try {
        const std::error_code error = sink->Write(document.Line(), deadline);
        return error == std::errc::timed_out ? outOfTime : error ? error.message() : "";
    } catch (const std::exception& problem) {
        return std::string("failed: ") + problem.what();
    }
}

void SinkQueue::Lose(AlarmDocument& document, const std::string& reason)
{
    ++lost;
    document.Finish(false);
    std::unique_lock lock(mutex);
    const auto times = losses.Occurred(SDK::RepeatedReport::Clock::now());
    lock.unlock();
    if (times != 0) {
        ReportLog::Warning("sink %s lost %?u alarms (%s), going on", sink->Name(), times, reason);
    }
}

}  // namespace Engine
