// SPDX-License-Identifier: Apache-2.0
// Reads one HTTP/1.x reply (RFC 9112) piece by piece, however the pieces were cut.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace SDK {

// Thread: one at a time. The other side is not trusted: whatever it sends, memory stays bounded and nothing is thrown
// but std::bad_alloc.
class HttpReply {
public:
    // Status line and headers; the same again for a chunked body's trailers.
    static constexpr std::size_t maxHeadBytes = 64UL * 1024;
    static constexpr std::size_t maxSizeLineBytes = 1024;  // the line before a chunk

    // Takes the next bytes and appends what they hold of the body to `body`. False once the reply is broken: Error()
    // says why, and nothing more is taken. Bytes after the end of the reply are ignored.
    bool Feed(std::string_view bytes, std::string& body);

    // The connection has ended. False, with Error(), when the reply had not.
    bool Close();

    bool HasHead() const { return status != 0; }
    bool IsComplete() const { return state == State::Complete; }
    int Status() const { return status; }  // 100 to 999; 0 before the head is complete
    const std::string& Error() const { return error; }

private:
    enum class State : std::uint8_t {
        StatusLine,
        Headers,
        BodyOfLength,
        BodyUntilClose,
        ChunkSize,
        ChunkData,
        ChunkEnd,  // the empty line after a chunk's data
        Trailers,
        Complete,
        Broken
    };

    bool TakesLines() const;
    void FeedLine(std::string_view& bytes);
    void FeedBody(std::string_view& bytes, std::string& body);
    void OnLine(std::string_view text);
    void OnStatusLine(std::string_view text);
    void OnHeader(std::string_view text);
    void OnContentLength(std::string_view value);
    void OnHeadEnd();
    void OnChunkSize(std::string_view text);
    void Break(std::string why);

    State state = State::StatusLine;
    std::string line;           // the part of a line that has come so far
    std::size_t headBytes = 0;  // of the lines of the present head or trailer section
    int pendingStatus = 0;      // read, while the head is not complete
    int status = 0;
    bool isChunked = false;
    std::optional<std::uint64_t> length;  // by Content-Length
    std::uint64_t remaining = 0;          // bytes of the body, or of the chunk
    std::string error;
};

}  // namespace SDK
