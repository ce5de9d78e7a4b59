// SPDX-License-Identifier: Apache-2.0
// One alarm on its way to the sinks, as the line that each of them writes.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace Engine {

// Shared by the queues of the sinks. Counted once however many sinks there are: "alarms.sent" when every sink wrote it,
// "alarms.lost" when one did not. Any thread.
class AlarmDocument {
public:
    // `sinks`: how many will report their result, at least 1. Null when `text` is not a JSON object, which is counted
    // as lost. `form` makes the line of the document in printable ASCII; none: it is the line.
    using Form = std::function<std::string(const std::string& document)>;
    static std::shared_ptr<AlarmDocument> Make(const std::string& text, std::size_t sinks, const Form& form = {});

    AlarmDocument(std::string line, std::size_t sinks) : line(std::move(line)), pending(sinks) {}

    // Printable, with the newline at its end: nothing that a process name or a label holds can break the line or
    // reach a terminal as a control sequence.
    const std::string& Line() const { return line; }

    // The result of one sink, once for each. The last one counts the document.
    void Finish(bool written);

    // An alarm that never became a document.
    static void CountLost();

private:
    const std::string line;
    std::atomic<std::size_t> pending;
    std::atomic<bool> isLost{false};
};

}  // namespace Engine
