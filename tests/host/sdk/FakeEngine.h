// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "host/sdk/FileDescriptor.h"
#include "host/sdk/TempDirectory.h"

// An engine that takes one connection, reads the request and then does as it is told. Without a script it takes none.
class FakeEngine {
public:
    // The engine's side of the connection.
    struct Peer {
        // False when the client has gone.
        bool Send(std::string_view bytes) const
        {
            return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
        }

        // Waits until the client has hung up, at most that long. True when it has.
        bool AwaitHangUp(int milliseconds = -1) const
        {
            pollfd wanted{fd, POLLRDHUP, 0};
            return ::poll(&wanted, 1, milliseconds) > 0;
        }

        int fd;
    };

    explicit FakeEngine(std::function<void(Peer)> script)
    {
        const sockaddr_un address = Address();
        if (::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(listener.Get(), 1) != 0) {
            throw std::runtime_error("cannot listen");
        }
        if (script) {
            thread = std::thread([this, script = std::move(script)] { Serve(script); });
        }
    }
    ~FakeEngine()
    {
        ::shutdown(listener.Get(), SHUT_RDWR);  // ends accept(2) if it still waits
        Request();
    }
    FakeEngine(const FakeEngine&) = delete;
    FakeEngine& operator=(const FakeEngine&) = delete;

    std::string SocketPath() const { return directory / "engine.sock"; }

    sockaddr_un Address() const
    {
        sockaddr_un address{AF_UNIX, {}};
        std::strcpy(address.sun_path, SocketPath().c_str());
        return address;
    }

    // The request as it came, once the engine has done what it was told.
    const std::string& Request()
    {
        if (thread.joinable()) {
            thread.join();
        }
        return request;
    }

private:
    void Serve(const std::function<void(Peer)>& script)
    {
        const SDK::FileDescriptor connection(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        char byte = 0;
        while (!request.ends_with("\r\n\r\n")) {
            if (::recv(connection.Get(), &byte, 1, 0) != 1) {
                return;
            }
            request += byte;
        }
        script({connection.Get()});
    }

    TempDirectory directory;
    SDK::FileDescriptor listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string request;
    std::thread thread;
};
