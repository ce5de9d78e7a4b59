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

// An engine that takes one connection, reads the request and then does as it is told.
class FakeEngine {
public:
    // The engine's side of the connection.
    class Peer {
    public:
        explicit Peer(int fd) : fd(fd) {}

        // False when the client has gone.
        bool Send(std::string_view bytes) const
        {
            while (!bytes.empty()) {
                const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
                if (sent < 0) {
                    return false;
                }
                bytes.remove_prefix(static_cast<std::size_t>(sent));
            }
            return true;
        }

        // Waits until the client has hung up, at most that long. True when it has.
        bool AwaitHangUp(int milliseconds = -1) const
        {
            pollfd wanted{fd, POLLRDHUP, 0};
            return ::poll(&wanted, 1, milliseconds) > 0;
        }

    private:
        int fd;
    };

    explicit FakeEngine(std::function<void(const Peer&)> script) : listener(Listen(SocketPath()))
    {
        thread = std::thread([this, script = std::move(script)] { Serve(script); });
    }
    ~FakeEngine() { Finish(); }

    // The request as it came, once the engine has done what it was told. Wakes an engine that nobody called.
    std::string Request()
    {
        Finish();
        return request;
    }

    std::string SocketPath() const { return directory / "engine.sock"; }

    static sockaddr_un AddressOf(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        return address;
    }

    static SDK::FileDescriptor Listen(const std::string& path)
    {
        SDK::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = AddressOf(path);
        if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(socket.Get(), 1) != 0) {
            throw std::runtime_error("cannot listen on " + path);
        }
        return socket;
    }

private:
    void Finish()
    {
        if (thread.joinable()) {
            ::shutdown(listener.Get(), SHUT_RDWR);  // ends accept(2) if it still waits
            thread.join();
        }
    }

    void Serve(const std::function<void(const Peer&)>& script)
    {
        const SDK::FileDescriptor connection(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        char byte = 0;
        while (connection && ::recv(connection.Get(), &byte, 1, 0) == 1) {
            request += byte;
            if (request.ends_with("\r\n\r\n")) {
                script(Peer(connection.Get()));
                return;
            }
        }
    }

    TempDirectory directory;
    SDK::FileDescriptor listener;
    std::string request;
    std::thread thread;
};
