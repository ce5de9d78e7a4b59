// SPDX-License-Identifier: Apache-2.0
// One alarm on its way to the sinks, as the line that each of them writes.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

namespace Engine {

// Shared by the sinks' queues. Whoever lets go of it last settles the account: "alarms.sent" when every sink wrote it,
// "alarms.lost" otherwise, so that an alarm counts once however many sinks there are, and one that is dropped anywhere
// on the way counts as lost. Any thread.
class AlarmDocument {
public:
    // `sinks`: how many must write it. Null when `text` is not a JSON object: such a text is counted as lost here.
    static std::shared_ptr<AlarmDocument> Make(const std::string& text, std::size_t sinks);

    AlarmDocument(std::string line, std::size_t sinks) : line(std::move(line)), sinks(sinks) {}
    AlarmDocument(const AlarmDocument&) = delete;
    AlarmDocument& operator=(const AlarmDocument&) = delete;
    ~AlarmDocument();

    // Printable ASCII and the newline at its end: nothing that a process name or a label holds can break the line or
    // reach a terminal as a control sequence.
    const std::string& Line() const { return line; }

    // One of the sinks has written it.
    void MarkWritten() { written.fetch_add(1); }

    // An alarm that never became a document.
    static void CountLost();

private:
    std::string line;
    std::size_t sinks;
    std::atomic<std::size_t> written{0};
};

}  // namespace Engine
