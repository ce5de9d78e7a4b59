// SPDX-License-Identifier: Apache-2.0
// A reply of the container engine that goes on for as long as there is news: its event stream, one JSON document a
// line. To be read from an event loop.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "host/sdk/EngineConnection.h"

namespace SDK {

// Thread: one at a time. Throws nothing but std::bad_alloc. Closes its connection when it goes.
class EngineStream {
public:
    static constexpr std::size_t maxLineBytes = 1024UL * 1024;

    // Sends GET `target`, for example "/events?filters=...", and waits at most `timeout`, connecting included, for the
    // head of a reply with status 200. Empty on failure: `error` says why.
    // Events may have come along with the head: call ReadLines once before waiting on Fd().
    static std::optional<EngineStream> Open(const std::string& socketPath, const std::string& target,
                                            std::chrono::milliseconds timeout, std::string& error);

    // Readable (poll(2), epoll(7), level-triggered) when ReadLines has something to do.
    int Fd() const { return connection.Fd(); }

    enum class State {
        Open,   // more may come
        Ended,  // the engine has ended the stream in order; what followed the last line feed came as a line
        Failed  // it broke off, or sent nonsense or a line longer than maxLineBytes: Error() says why
    };

    // Appends the complete lines that have come, without their line ends; empty lines are left out. Never blocks, and
    // returns after about a MiB even when there is more. After Ended or Failed nothing more comes: the lines that came
    // before are still appended, and Fd() must leave its event loop because it stays readable.
    State ReadLines(std::vector<std::string>& lines);

    const std::string& Error() const { return error; }

private:
    EngineStream() = default;
    bool AwaitHead(EngineConnection::Deadline deadline);
    bool TakeLines(std::vector<std::string>& lines);
    State Finish(EngineConnection::Progress last, std::vector<std::string>& lines);

    EngineConnection connection;
    std::string pending;       // body bytes that make no line yet
    std::size_t searched = 0;  // of `pending`, known to hold no line feed
    EngineConnection::Progress last = EngineConnection::Progress::Read;
    std::string error;
};

}  // namespace SDK
