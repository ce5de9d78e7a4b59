// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/HttpReply.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

namespace SDK {

namespace {

std::string_view Trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t";
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualsIgnoringCase(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return Lower(a) == Lower(b); });
}

// Digits and nothing else, within 63 bits.
std::optional<std::uint64_t> Number(std::string_view text, int base)
{
    std::uint64_t number = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    const bool isWhole = failure == std::errc{} && end == text.data() + text.size();
    if (!isWhole || number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return std::nullopt;
    }
    return number;
}

// "HTTP/1.1 200 OK"
std::optional<int> StatusIn(std::string_view line)
{
    constexpr std::string_view version = "HTTP/1.";
    constexpr std::size_t statusAt = version.size() + 2;
    if (line.substr(0, version.size()) != version || line.size() < statusAt + 3 || line[statusAt - 1] != ' ' ||
        (line.size() > statusAt + 3 && line[statusAt + 3] != ' ')) {
        return std::nullopt;
    }
    const auto number = Number(line.substr(statusAt, 3), 10);
    return number && *number >= 100 ? std::optional<int>(static_cast<int>(*number)) : std::nullopt;
}

}  // namespace

bool HttpReply::Feed(std::string_view bytes, std::string& body)
{
    while (!bytes.empty() && state != State::Complete && state != State::Broken) {
        if (TakesLines()) {
            FeedLine(bytes);
        } else {
            FeedBody(bytes, body);
        }
    }
    return state != State::Broken;
}

bool HttpReply::Close()
{
    if (state == State::BodyUntilClose) {
        state = State::Complete;
    } else if (state != State::Complete && state != State::Broken) {
        Break(HasHead() ? "the connection ended within the reply's body" : "the connection ended before a reply");
    }
    return state == State::Complete;
}

bool HttpReply::TakesLines() const
{
    return state != State::BodyOfLength && state != State::BodyUntilClose && state != State::ChunkData;
}

void HttpReply::FeedLine(std::string_view& bytes)
{
    const bool isSizeLine = state == State::ChunkSize || state == State::ChunkEnd;
    const std::size_t limit = isSizeLine ? maxSizeLineBytes : maxHeadBytes - headBytes;
    const std::size_t end = bytes.find('\n');
    const std::string_view piece = bytes.substr(0, end);
    if (line.size() + piece.size() >= limit) {
        Break(isSizeLine ? "a chunk's size line is too long" : "the reply's headers are too long");
        return;
    }
    line += piece;
    bytes.remove_prefix(std::min(bytes.size(), piece.size() + 1));
    if (end == std::string_view::npos) {
        return;
    }
    headBytes += isSizeLine ? 0 : line.size() + 1;
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    OnLine(std::exchange(line, {}));
}

void HttpReply::FeedBody(std::string_view& bytes, std::string& body)
{
    if (state == State::BodyUntilClose) {
        body += std::exchange(bytes, {});
        return;
    }
    const std::string_view piece = bytes.substr(0, std::min<std::uint64_t>(remaining, bytes.size()));
    body += piece;
    bytes.remove_prefix(piece.size());
    remaining -= piece.size();
    if (remaining == 0) {
        state = state == State::ChunkData ? State::ChunkEnd : State::Complete;
    }
}

void HttpReply::OnLine(std::string_view text)
{
    switch (state) {
        case State::StatusLine:
            OnStatusLine(text);
            break;
        case State::Headers:
            text.empty() ? OnHeadEnd() : OnHeader(text);
            break;
        case State::ChunkSize:
            OnChunkSize(text);
            break;
        case State::ChunkEnd:
            text.empty() ? void(state = State::ChunkSize) : Break("a chunk is longer than its size");
            break;
        case State::Trailers:
            state = text.empty() ? State::Complete : State::Trailers;
            break;
        default:
            break;
    }
}

void HttpReply::OnStatusLine(std::string_view text)
{
    const std::optional<int> number = StatusIn(text);
    if (!number) {
        Break("the answer is not HTTP");
        return;
    }
    pendingStatus = *number;
    state = State::Headers;
}

void HttpReply::OnHeader(std::string_view text)
{
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        Break("a header without a colon");
        return;
    }
    const std::string_view name = text.substr(0, colon);
    const std::string_view value = Trimmed(text.substr(colon + 1));
    if (EqualsIgnoringCase(name, "Content-Length")) {
        OnContentLength(value);
    } else if (EqualsIgnoringCase(name, "Transfer-Encoding")) {
        isChunked = EqualsIgnoringCase(value, "chunked");
        if (!isChunked) {
            Break("an unknown transfer encoding");
        }
    }
}

void HttpReply::OnContentLength(std::string_view value)
{
    const auto number = Number(value, 10);
    if (!number || (length && *length != *number)) {
        Break("a Content-Length that is no number, or two that differ");
        return;
    }
    length = number;
}

void HttpReply::OnHeadEnd()
{
    headBytes = 0;
    if (pendingStatus < 200) {  // an interim reply: the real one follows (RFC 9110 section 15.2)
        isChunked = false;
        length.reset();
        state = State::StatusLine;
        return;
    }
    status = pendingStatus;
    if (status == 204 || status == 304) {
        state = State::Complete;
    } else if (isChunked) {  // overrides a Content-Length (RFC 9112 section 6.3)
        state = State::ChunkSize;
    } else if (length) {
        remaining = *length;
        state = remaining == 0 ? State::Complete : State::BodyOfLength;
    } else {
        state = State::BodyUntilClose;
    }
}

void HttpReply::OnChunkSize(std::string_view text)
{
    const auto size = Number(Trimmed(text.substr(0, text.find(';'))), 16);
    if (!size) {
        Break("a chunk without a size");
        return;
    }
    remaining = *size;
    state = remaining == 0 ? State::Trailers : State::ChunkData;
}

void HttpReply::Break(std::string why)
{
    error = std::move(why);
    state = State::Broken;
}

}  // namespace SDK
