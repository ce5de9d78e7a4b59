// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "host/sdk/FileDescriptor.h"
#include "tests/support/TemporaryDirectory.h"

// A container engine on a socket of its own. It reads one request from a connection, then the script does what it wants
// with it: a connection that the script keeps stays open. One connection at a time.
class FakeEngine {
public:
    using Script = std::function<void(const std::string& target, SDK::FileDescriptor& connection)>;

    // False when the client has gone.
    static bool Send(const SDK::FileDescriptor& to, std::string_view bytes)
    {
        return ::send(to.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    explicit FakeEngine(Script script)
    {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        SocketPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(listener.Get(), 8), 0);
        thread = std::thread([this, script = std::move(script)] { Serve(script); });
    }
    ~FakeEngine()
    {
        ::shutdown(listener.Get(), SHUT_RDWR);  // ends accept(2)
        thread.join();
    }

    std::string SocketPath() const { return directory / "engine.sock"; }

private:
    void Serve(const Script& script)
    {
        while (SDK::FileDescriptor connection{::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)}) {
            std::string request;
            for (char byte = 0; !request.ends_with("\r\n\r\n") && ::recv(connection.Get(), &byte, 1, 0) == 1;) {
                request += byte;
            }
            const std::size_t start = request.find(' ') + 1;
            script(request.substr(start, request.find(' ', start) - start), connection);
        }
    }

    TemporaryDirectory directory;
    SDK::FileDescriptor listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::thread thread;
};
