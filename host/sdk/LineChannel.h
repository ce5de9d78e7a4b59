// SPDX-License-Identifier: Apache-2.0
// Where all log records go: one line a record, written in one piece.
//   2026-01-31T12:00:00.123Z warning ftrace_module: text [TraceDecoder.cpp:42]
#pragma once

#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <mutex>
#include <string>

namespace SDK {

// Thread: any. Ownership: the descriptor stays the caller's and must outlive the channel.
// A record that the descriptor does not take (a full pipe in non-blocking mode, a reader that went away) is counted as
// log.lost and never waited for.
class LineChannel : public Poco::Channel {
public:
    explicit LineChannel(int fd) : fd(fd) {}

    void log(const Poco::Message& record) override;

private:
    void Write(const std::string& line);

    const int fd;
    std::mutex mutex;        // one record at a time; held over the write, so lines never mix
    bool isMidLine = false;  // the last record was cut: the next begins a new line
};

// The line for `record`, with its line feed. `record`'s own text cannot add another.
std::string FormatRecord(const Poco::Message& record);

}  // namespace SDK
