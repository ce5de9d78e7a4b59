// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/LineStream.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>

#include "host/sdk/Limits.h"

namespace SDK {

namespace {

// Alarms name processes and files of containers: not for other users of the host.
constexpr mode_t newFileMode = 0600;
constexpr int firstOwnDescriptor = 3;  // never in place of a standard descriptor that is closed

bool MayBlock(mode_t mode)
{
    return S_ISFIFO(mode) || S_ISCHR(mode);
}

std::error_code LastError()
{
    return std::error_code{errno, std::generic_category()};
}

// Waits until `fd` takes bytes, or has an error that the next write will tell. False: the deadline has passed and it
// took none.
bool WaitWritable(int fd, const StopDeadline& deadline)
{
    constexpr int lookMs = 20;  // how often to look at the deadline
    pollfd watched{fd, POLLOUT, 0};
    while (true) {
        const bool isLast = deadline.HasPassed();
        const int ready = ::poll(&watched, 1, isLast ? 0 : lookMs);
        if (ready > 0) {
            return true;
        }
        if (isLast || (ready < 0 && errno != EINTR)) {
            return false;
        }
    }
}

}  // namespace

LineStream::LineStream(FileDescriptor descriptor) : fd(std::move(descriptor))
{
    struct stat status {};
    if (!fd || ::fstat(fd.Get(), &status) != 0) {
        return;
    }
    isSocket = S_ISSOCK(status.st_mode);
    const bool blocks = (::fcntl(fd.Get(), F_GETFL) & O_NONBLOCK) == 0;
    if (blocks && MayBlock(status.st_mode)) {
        // A pipe that polls writable has room for this much at least (pipe(7)), so the write cannot block.
        maxPiece = PIPE_BUF;
    }
}

LineStream LineStream::Append(const char* path, std::error_code& error)
{
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    FileDescriptor file = Limits::Opened([path] { return ::open(path, flags, newFileMode); });
    error = file ? std::error_code{} : LastError();
    return LineStream(std::move(file));
}

LineStream LineStream::Duplicate(int fd, std::error_code& error)
{
    error.clear();
    struct stat status {};
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) {
        error = std::make_error_code(std::errc::bad_file_descriptor);  // opened anew it would be writable
        return {};
    }
    if (::fstat(fd, &status) == 0 && MayBlock(status.st_mode)) {
        // Opened anew, it has its own O_NONBLOCK. A regular file is not: its position is shared on purpose.
        const std::string path = "/proc/self/fd/" + std::to_string(fd);
        FileDescriptor own(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
        if (own) {
            return LineStream(std::move(own));
        }
    }
    FileDescriptor copy(::fcntl(fd, F_DUPFD_CLOEXEC, firstOwnDescriptor));
    if (!copy) {
        error = LastError();
    }
    return LineStream(std::move(copy));
}

bool LineStream::HasLeft(const char* path) const
{
    struct stat there {};
    struct stat own {};
    if (::lstat(path, &there) != 0) {
        return errno == ENOENT;
    }
    return ::fstat(fd.Get(), &own) == 0 && (own.st_dev != there.st_dev || own.st_ino != there.st_ino);
}

std::size_t LineStream::FileSize() const
{
    struct stat own {};
    return ::fstat(fd.Get(), &own) == 0 && S_ISREG(own.st_mode) ? static_cast<std::size_t>(own.st_size) : 0;
}

std::error_code LineStream::Write(std::string_view line, const StopDeadline& deadline)
{
    if (!fd) {
        return std::make_error_code(std::errc::bad_file_descriptor);
    }
    if (midLine) {
        if (const std::error_code error = WriteAll("\n", deadline)) {
            midLine = true;
            return error;
        }
    }
    return WriteAll(line, deadline);
}

// Leaves in midLine whether it stopped inside the text.
std::error_code LineStream::WriteAll(std::string_view text, const StopDeadline& deadline)
{
    midLine = false;
    while (!text.empty()) {
        if (!WaitWritable(fd.Get(), deadline)) {
            return std::make_error_code(std::errc::timed_out);
        }
        const long written = WriteSome(text.substr(0, maxPiece));
        if (written > 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
            midLine = !text.empty();
        } else if (written == 0) {
            return std::make_error_code(std::errc::io_error);
        } else if (errno != EINTR && errno != EAGAIN) {
            return LastError();
        }
    }
    return {};
}

long LineStream::WriteSome(std::string_view text) const
{
    // A socket's O_NONBLOCK would be shared, and it cannot be opened anew; send(2) takes the wish with each call.
    return isSocket ? ::send(fd.Get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                    : ::write(fd.Get(), text.data(), text.size());
}

}  // namespace SDK
