// SPDX-License-Identifier: Apache-2.0
// One sink with a bounded queue and a thread of its own: a sink that is slow or dead delays neither another sink nor
// detection. What a sink refuses (a full disk, a reader that went away) is kept and tried again, and shown on standard
// error meanwhile.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/report/AlarmDocument.h"
#include "host/report/AlarmSink.h"
#include "host/sdk/Counters.h"
#include "host/sdk/RepeatedReport.h"

namespace Engine {

class SinkQueue {
public:
    // Alarms that may wait: minutes of the worst that the detectors' own limits let through, a few megabytes at most.
    static constexpr std::size_t defaultCapacity = 1024;

    static constexpr std::chrono::milliseconds retryPause{250};

    // Starts the thread.
    explicit SinkQueue(std::unique_ptr<AlarmSink> sink, std::size_t capacity = defaultCapacity);
    SinkQueue(const SinkQueue&) = delete;
    SinkQueue& operator=(const SinkQueue&) = delete;

    // Waits for the thread; what is still queued when End was not called is given up at once.
    ~SinkQueue();

    // Never waits for the sink. A full queue refuses the document, and the loss is counted. Any thread.
    void Push(std::shared_ptr<AlarmDocument> document);

    // Takes no more documents and lets the thread write what is queued for at most `bound`; the rest is lost and
    // counted. Returns at once, so that several sinks end side by side. Any thread.
    void End(std::chrono::milliseconds bound);

private:
    void Work();
    std::optional<std::shared_ptr<AlarmDocument>> Next();
    std::string Deliver(const AlarmDocument& document);
    bool KeepBack(const AlarmDocument& document, const std::string& failure);
    void Show(const AlarmDocument& document, const std::string& failure);
    void Lose(AlarmDocument& document, const std::string& reason);

    std::unique_ptr<AlarmSink> sink;
    std::size_t capacity;
    SDK::Counters::Counter& lost;
    SDK::Counters::Counter& refused;
    StopDeadline deadline;
    std::mutex mutex;  // of the members below; never held while the sink writes
    std::deque<std::shared_ptr<AlarmDocument>> documents;
    bool isEnding = false;
    std::size_t shown = 0;  // on standard error: the document that is being delivered, then the first in the queue
    SDK::RepeatedReport losses;
    std::condition_variable changed;
    std::thread thread;  // last: it uses all of the above
};

}  // namespace Engine
