// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/EngineSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace SDK::EngineSocket {

FileDescriptor Connect(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return {};
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    FileDescriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int reason = errno;
        connection.Reset();
        errno = reason;
    }
    return connection;
}

bool IsRoots(int connection)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return ::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == 0;
}

Protocol Probe(const std::string& path, std::chrono::milliseconds patience)
{
    constexpr std::string_view request = "GET /_ping HTTP/1.1\r\nHost: localhost\r\n\r\n";
    constexpr std::size_t frameHead = 9;
    constexpr char settings = 4;
    const FileDescriptor connection = Connect(path);
    std::array<char, frameHead> answer{};
    pollfd readable{connection.Get(), POLLIN, 0};
    if (!connection || ::send(connection.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
        ::poll(&readable, 1, static_cast<int>(patience.count())) <= 0 ||
        ::recv(connection.Get(), answer.data(), answer.size(), 0) != static_cast<ssize_t>(answer.size())) {
        return Protocol::Unknown;
    }
    const std::string_view text(answer.data(), answer.size());
    if (text.starts_with("HTTP/1.")) {
        return Protocol::Http1;
    }
    const bool isSettings = text[3] == settings && text.substr(5) == std::string_view("\0\0\0\0", 4);
    return isSettings ? Protocol::Http2 : Protocol::Unknown;
}

}  // namespace SDK::EngineSocket
