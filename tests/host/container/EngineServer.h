// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "host/sdk/FileDescriptor.h"
#include "tests/support/TemporaryDirectory.h"

// A container engine on a socket of its own: answers from a table, one request a connection, and keeps the stream of
// events open until it is told to break it.
class EngineServer {
public:
    EngineServer() : listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, SocketPath().c_str(), SocketPath().size() + 1);
        if (::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(listener.Get(), 16) != 0) {
            throw std::runtime_error("cannot listen on " + SocketPath());
        }
        thread = std::thread([this] { Serve(); });
    }
    EngineServer(const EngineServer&) = delete;
    EngineServer& operator=(const EngineServer&) = delete;
    ~EngineServer()
    {
        ::shutdown(listener.Get(), SHUT_RDWR);  // ends accept(2)
        thread.join();
    }

    std::string SocketPath() const { return directory / "engine.sock"; }

    // What a GET of `target` answers; 404 for all others. "hang": nothing at all.
    void Answer(const std::string& target, const std::string& body)
    {
        const std::lock_guard lock{mutex};
        answers[target] = body;
    }
    void Container(const std::string& id, const std::string& name, const std::string& image)
    {
        Answer("/containers/" + id + "/json", R"({"Id":")" + id + R"(","Name":"/)" + name +
                                                  R"(","Image":"sha256:1","Config":{"Image":")" + image + "\"}}");
    }

    void SendEvent(const std::string& action, const std::string& id, const std::string& image)
    {
        const std::string line = R"({"Type":"container","Action":")" + action + R"(","Actor":{"ID":")" + id +
                                 R"(","Attributes":{"image":")" + image + "\",\"name\":\"n\"}}}\n";
        const std::lock_guard lock{mutex};
        Send(events.Get(), line);
    }
    void BreakEvents()
    {
        const std::lock_guard lock{mutex};
        events.Reset();
    }
    int Requests() const { return requests; }

private:
    static void Send(int fd, std::string_view bytes)
    {
        static_cast<void>(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

    void Serve()
    {
        for (;;) {
            SDK::FileDescriptor connection(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!connection) {
                return;
            }
            std::string request;
            char byte = 0;
            while (!request.ends_with("\r\n\r\n") && ::recv(connection.Get(), &byte, 1, 0) == 1) {
                request += byte;
            }
            ++requests;
            Handle(std::move(connection), request);
        }
    }

    void Handle(SDK::FileDescriptor connection, const std::string& request)
    {
        const std::size_t start = request.find(' ') + 1;
        const std::string target = request.substr(start, request.find(' ', start) - start);
        const std::lock_guard lock{mutex};
        if (target.starts_with("/events")) {
            Send(connection.Get(), "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n");
            events = std::move(connection);
            return;
        }
        const auto found = answers.find(target);
        if (found != answers.end() && found->second == "hang") {
            hanging.push_back(std::move(connection));
            return;
        }
        const std::string body = found == answers.end() ? "{}" : found->second;
        Send(connection.Get(), std::string{"HTTP/1.1 "} + (found == answers.end() ? "404 Not Found" : "200 OK") +
                                   "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    }

    TemporaryDirectory directory;
    SDK::FileDescriptor listener;
    std::mutex mutex;
    std::map<std::string, std::string> answers;
    SDK::FileDescriptor events;
    std::vector<SDK::FileDescriptor> hanging;
    std::atomic<int> requests{0};
    std::thread thread;
};
