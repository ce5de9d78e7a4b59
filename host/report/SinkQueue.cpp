// SPDX-License-Identifier: Apache-2.0
#include "host/report/SinkQueue.h"

#include <pthread.h>
#include <signal.h>

#include <exception>
#include <utility>

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
    : sink(std::move(sinkToServe)), capacity(capacity), losses(sink->Name()), thread([this] { Work(); })
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
    losses.Add("its queue is full");
}

void SinkQueue::End(std::chrono::milliseconds bound)
{
    patience.End(bound);
    const std::lock_guard lock(mutex);
    isEnding = true;
    changed.notify_one();
}

void SinkQueue::Work()
{
    BlockSignals();
    ::pthread_setname_np(::pthread_self(), "alarm_sink");
    while (const auto document = Next()) {
        Deliver(**document);
    }
    losses.Flush();
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

void SinkQueue::Deliver(AlarmDocument& document)
{
    constexpr char outOfTime[] = "no time left at the stop";
    if (patience.IsOver()) {
        losses.Add(outOfTime);
        return;
    }
    try {
        if (const std::error_code error = sink->Write(document.Line(), patience)) {
            losses.Add(error == std::errc::timed_out ? outOfTime : error.message());
        } else {
            document.MarkWritten();
        }
    } catch (const std::exception& problem) {
        losses.Add(problem.what());
    }
}

}  // namespace Engine
