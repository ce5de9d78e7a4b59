// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "host/sdk/FileDescriptor.h"
#include "tests/support/TemporaryDirectory.h"

// A container engine on a socket of its own. It reads one request from a connection, then the script does what it wants
// with it: a connection that the script keeps stays open. One connection at a time. Without a script it takes none.
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
        const sockaddr_un address = Address();
        if (::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(listener.Get(), 8) != 0) {
            throw std::runtime_error("cannot listen");
        }
        if (script) {
            thread = std::thread([this, script = std::move(script)] { Serve(script); });
        }
    }
    ~FakeEngine()
    {
        ::shutdown(listener.Get(), SHUT_RDWR);  // ends accept(2)
        if (thread.joinable()) {
            thread.join();
        }
    }
    FakeEngine(const FakeEngine&) = delete;
    FakeEngine& operator=(const FakeEngine&) = delete;

    std::string SocketPath() const { return directory / "engine.sock"; }

    sockaddr_un Address() const
    {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        SocketPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
        return address;
    }

    // The requests so far, whole.
    std::vector<std::string> Requests()
    {
        const std::lock_guard lock{mutex};
        return requests;
    }

private:
    void Serve(const Script& script)
    {
        while (SDK::FileDescriptor connection{::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)}) {
            std::string request;
            char byte = 0;
            while (!request.ends_with("\r\n\r\n") && ::recv(connection.Get(), &byte, 1, 0) == 1) {
                request += byte;
            }
            const std::size_t start = request.find(' ') + 1;
            {
                const std::lock_guard lock{mutex};
                requests.push_back(request);
            }
            script(request.substr(start, request.find(' ', start) - start), connection);
        }
    }

    TemporaryDirectory directory;
    SDK::FileDescriptor listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::mutex mutex;  // guards the requests
    std::vector<std::string> requests;
    std::thread thread;
};
