// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/EngineStream.h"

#include <utility>

namespace SDK {

namespace {

using Progress = EngineConnection::Progress;

constexpr int readsPerCall = 16;  // of at most 64 KiB

void AddLine(std::string_view line, std::vector<std::string>& lines)
{
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    if (!line.empty()) {
        lines.emplace_back(line);
    }
}

}  // namespace

std::optional<EngineStream> EngineStream::Open(const std::string& socketPath, const std::string& target,
                                               std::chrono::milliseconds timeout, std::string& error)
{
    const EngineConnection::Deadline deadline = std::chrono::steady_clock::now() + timeout;
    EngineStream stream;
    if (!stream.connection.Request(socketPath, target, deadline) || !stream.AwaitHead(deadline)) {
        error = stream.connection.Error();
        return std::nullopt;
    }
    const int status = stream.connection.Reply().Status();
    if (status != 200) {
        error = "status " + std::to_string(status);
        return std::nullopt;
    }
    return stream;
}

bool EngineStream::AwaitHead(EngineConnection::Deadline deadline)
{
    while (!connection.Reply().HasHead()) {
        if (!connection.WaitReadable(deadline)) {
            return false;
        }
        last = connection.Read(pending);
        if (last == Progress::Failed) {
            return connection.Reply().HasHead();  // a good head with a broken body behind it is ReadLines' to tell
        }
    }
    return true;
}

EngineStream::State EngineStream::ReadLines(std::vector<std::string>& lines)
{
    bool isGood = TakeLines(lines);
    for (int reads = 0; isGood && reads < readsPerCall && (last == Progress::Read || last == Progress::Nothing);
         ++reads) {
        last = connection.Read(pending);
        isGood = TakeLines(lines);
        if (last == Progress::Nothing) {
            break;
        }
    }
    if (!isGood) {
        last = Progress::Failed;
        error = "a line is too long";
    }
    return Finish(last, lines);
}

// False when what has come of a line is longer than a line may be.
bool EngineStream::TakeLines(std::vector<std::string>& lines)
{
    std::size_t begin = 0;
    for (std::size_t end = pending.find('\n', searched); end != std::string::npos; end = pending.find('\n', begin)) {
        if (end - begin > maxLineBytes) {
            return false;
        }
        AddLine(std::string_view(pending).substr(begin, end - begin), lines);
        begin = end + 1;
    }
    pending.erase(0, begin);
    searched = pending.size();
    return pending.size() <= maxLineBytes;
}

EngineStream::State EngineStream::Finish(Progress progress, std::vector<std::string>& lines)
{
    if (progress == Progress::Failed) {
        if (error.empty()) {
            error = connection.Error();
        }
        return State::Failed;
    }
    if (progress == Progress::Ended) {
        AddLine(std::exchange(pending, {}), lines);
        searched = 0;
        return State::Ended;
    }
    return State::Open;
}

}  // namespace SDK
