// SPDX-License-Identifier: Apache-2.0
// A descriptor that takes whole lines: file, pipe, terminal or socket.
#pragma once

#include <cstddef>
#include <string_view>
#include <system_error>

#include "host/sdk/FileDescriptor.h"
#include "host/sdk/StopDeadline.h"

namespace SDK {

// Thread: one writer. Never blocks beyond the deadline it is given, except inside a regular file's write(2), which
// nothing bounds. Raises no SIGPIPE where the writing thread blocks that signal, as that of SinkQueue does.
class LineStream {
public:
    LineStream() = default;
    explicit LineStream(FileDescriptor descriptor);

    // Opens `path` for appending and makes it if it is missing, readable for its owner alone. Failure: an empty stream,
    // `error` says why. A named pipe without a reader fails (ENXIO, fifo(7)) instead of waiting for one, a symbolic
    // link fails (ELOOP).
    static LineStream Append(const char* path, std::error_code& error);

    // A stream of its own onto what `fd` is open on. `fd` stays with the caller, and its flags stay as they are: they
    // are shared with the other programs on the terminal or the pipe. Failure: an empty stream, `error` says why.
    static LineStream Duplicate(int fd, std::error_code& error);

    explicit operator bool() const { return static_cast<bool>(fd); }

    // Whether `path` leads to something else than what this is open on, or to nothing: a file was renamed or deleted.
    bool HasLeft(const char* path) const;

    // The size of the file; 0 for anything but a regular file.
    std::size_t FileSize() const;

    // Writes the whole line, in one write(2) where the descriptor takes it so. After an error a part of the line may be
    // out; the next line then starts on a new one. std::errc::timed_out: the deadline has passed.
    std::error_code Write(std::string_view line, const StopDeadline& deadline);

private:
    std::error_code WriteAll(std::string_view text, const StopDeadline& deadline);
    long WriteSome(std::string_view text) const;

    FileDescriptor fd;
    bool isSocket = false;
    std::size_t maxPiece = std::string_view::npos;  // bytes that one write may carry without blocking after a poll
    bool midLine = false;                           // the last line was cut off
};

}  // namespace SDK
