// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/EngineConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <system_error>
#include <utility>

namespace SDK {

namespace {

using std::chrono::milliseconds;

constexpr char timedOut[] = "no answer in time";
constexpr std::size_t readBytes = 64UL * 1024;

std::string Reason(const char* call, int error)
{
    return std::string(call) + ": " + std::generic_category().message(error);
}

// Rounded up, so that a wait of what is left never ends before the deadline; 0 when it has passed.
milliseconds Left(EngineConnection::Deadline deadline)
{
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::clamp(left, milliseconds{0}, milliseconds{std::numeric_limits<int>::max()});
}

// A target goes into the request line as it is: nothing in it may end that line or add a word to it.
bool IsTarget(const std::string& target)
{
    return !target.empty() && target.front() == '/' &&
           std::all_of(target.begin(), target.end(), [](char c) { return c > ' ' && c < '\x7F'; });
}

std::string RequestFor(const std::string& target)
{
    return "GET " + target +
           " HTTP/1.1\r\nHost: localhost\r\nUser-Agent: containerescape-agent\r\n"
           "Accept: application/json\r\nConnection: close\r\n\r\n";
}

}  // namespace

bool EngineConnection::Request(const std::string& socketPath, const std::string& target, Deadline deadline)
{
    if (!IsTarget(target)) {
        return Fail("not a request target");
    }
    return Connect(socketPath, deadline) && Send(RequestFor(target), deadline);
}

// A non-blocking connect(2) gives up at once when the engine's backlog is full, and nothing tells when that changes. A
// blocking one waits for as long as SO_SNDTIMEO says (unix_stream_connect() in net/unix/af_unix.c).
bool EngineConnection::Connect(const std::string& socketPath, Deadline deadline)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.empty() || socketPath.size() >= sizeof(address.sun_path)) {
        return Fail("connect: the socket's path is empty or too long");
    }
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    socket.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket) {
        return Fail(Reason("socket", errno));
    }
    for (;;) {
        const milliseconds left = Left(deadline);
        if (left.count() == 0) {
            return Fail(timedOut);  // a time-out of 0 would be none at all
        }
        const timeval limit{left.count() / 1000, static_cast<suseconds_t>(left.count() % 1000 * 1000)};
        ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            return true;
        }
        if (errno != EINTR) {
            return Fail(errno == EAGAIN ? timedOut : Reason("connect", errno));
        }
    }
}

bool EngineConnection::Send(std::string_view request, Deadline deadline)
{
    while (!request.empty()) {
        const ssize_t sent = ::send(socket.Get(), request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            request.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            if (!Wait(POLLOUT, deadline)) {
                return false;
            }
        } else if (errno != EINTR) {
            return Fail(Reason("send", errno));
        }
    }
    return true;
}

bool EngineConnection::WaitReadable(Deadline deadline)
{
    return Wait(POLLIN, deadline);
}

bool EngineConnection::Wait(short events, Deadline deadline)
{
    for (;;) {
        const milliseconds left = Left(deadline);
        if (left.count() == 0) {
            return Fail(timedOut);
        }
        pollfd wanted{socket.Get(), events, 0};
        const int ready = ::poll(&wanted, 1, static_cast<int>(left.count()));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return Fail(Reason("poll", errno));
        }
    }
}

EngineConnection::Progress EngineConnection::Read(std::string& body)
{
    std::array<char, readBytes> bytes;
    ssize_t got = -1;
    do {
        got = ::recv(socket.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got < 0 && errno == EAGAIN) {
        return Progress::Nothing;
    }
    if (got < 0) {
        Fail(Reason("recv", errno));
        return Progress::Failed;
    }
    const bool isGood =
        got == 0 ? reply.Close() : reply.Feed(std::string_view(bytes.data(), static_cast<std::size_t>(got)), body);
    if (!isGood) {
        Fail(reply.Error());
        return Progress::Failed;
    }
    return reply.IsComplete() ? Progress::Ended : Progress::Read;
}

bool EngineConnection::Fail(std::string why)
{
    error = std::move(why);
    return false;
}

}  // namespace SDK
