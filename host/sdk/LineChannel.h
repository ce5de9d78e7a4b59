// SPDX-License-Identifier: Apache-2.0
// Where all log records go: one line a record.
//   2026-01-31T12:00:00.123Z warning ftrace_module: text [TraceDecoder.cpp:42]
#pragma once

#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "host/sdk/StopDeadline.h"

namespace SDK {

// Thread: any. Ownership: the descriptor stays the caller's and must outlive the channel.
// A caller never waits for the descriptor: a thread of the channel's own, made with the first record, writes what is
// queued. What the queue has no room for is counted (log.lost), as is what the descriptor refuses (a reader that went
// away), and a record says how many were lost when there is room again.
class LineChannel : public Poco::Channel {
public:
    static constexpr std::size_t maxQueuedBytes = 256UL * 1024;

    explicit LineChannel(int fd) : fd(fd) {}

    // Writes what it can without waiting.
    ~LineChannel() override;

    void log(const Poco::Message& record) override;

    // Waits until everything is written, at most that long.
    void Flush(std::chrono::milliseconds bound);

private:
    void Work();
    void Lost();  // the mutex is held

    const int fd;
    StopDeadline deadline;
    std::mutex mutex;  // of the members below; not held while the thread writes
    std::condition_variable changed;
    std::deque<std::string> lines;
    std::size_t queuedBytes = 0;  // of the lines, that which is being written included
    std::uint64_t unsaidLosses = 0;
    bool isEnding = false;
    std::thread thread;
};

// The line for `record`, with its line feed. `record`'s own text cannot add another.
std::string FormatRecord(const Poco::Message& record);

}  // namespace SDK
