// SPDX-License-Identifier: Apache-2.0
#include "host/agent/MetricsServer.h"

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerConnection.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/ServerSocketImpl.h>
#include <Poco/Net/TCPServer.h>
#include <Poco/Net/TCPServerConnectionFactory.h>
#include <Poco/ThreadPool.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <chrono>
#include <map>
#include <mutex>
#include <ostream>
#include <utility>

namespace Agent {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto patience = 2s;  // with a client, from its connection to the end of the answer
constexpr int maxConnections = 4;
constexpr int maxWaiting = 8;

// On a descriptor that listens already; owns a copy of it.
class ListeningSocket : public Poco::Net::ServerSocket {
public:
    explicit ListeningSocket(int fd) : Poco::Net::ServerSocket(new Impl(::fcntl(fd, F_DUPFD_CLOEXEC, 0)), true) {}

private:
    class Impl : public Poco::Net::ServerSocketImpl {
    public:
        explicit Impl(int fd) { reset(fd); }
    };
};

// The connections that are being served. Any thread.
class Connections {
public:
    void Add(int fd)
    {
        const std::lock_guard lock(mutex);
        open[fd] = Clock::now() + patience;
        if (isEnding) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    void Remove(int fd)
    {
        const std::lock_guard lock(mutex);
        open.erase(fd);
    }
    // The threads that serve them notice it at once.
    void EndOverdue()
    {
        const std::lock_guard lock(mutex);
        for (const auto& [fd, until] : open) {
            if (isEnding || until < Clock::now()) {
                ::shutdown(fd, SHUT_RDWR);
            }
        }
    }
    void EndAll()
    {
        {
            const std::lock_guard lock(mutex);
            isEnding = true;
        }
        EndOverdue();
    }

private:
    std::mutex mutex;
    std::map<int, Clock::time_point> open;
    bool isEnding = false;
};

class Connection : public Poco::Net::HTTPServerConnection {
public:
    Connection(const Poco::Net::StreamSocket& client, Poco::Net::HTTPServerParams::Ptr params,
               Poco::Net::HTTPRequestHandlerFactory::Ptr handlers, Connections& all)
        : HTTPServerConnection(client, std::move(params), std::move(handlers)), all(all), fd(client.impl()->sockfd())
    {
        all.Add(fd);
    }
    ~Connection() override { all.Remove(fd); }

private:
    Connections& all;
    int fd;
};

class Handler : public Poco::Net::HTTPRequestHandler {
public:
    explicit Handler(const MetricsServer::Find& find) : find(find) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override
    {
        MetricsServer::Answer answer{405, "text/plain; charset=utf-8", "only GET\n"};
        if (request.getMethod() == Poco::Net::HTTPRequest::HTTP_GET) {
            answer = find(request.getURI().substr(0, request.getURI().find('?')));
        }
        response.setStatusAndReason(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(answer.status));
        response.setContentType(answer.type);
        response.sendBuffer(answer.body.data(), answer.body.size());
    }

private:
    const MetricsServer::Find& find;
};

class Handlers : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit Handlers(MetricsServer::Find find) : find(std::move(find)) {}

    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest& /*request*/) override
    {
        return new Handler(find);
    }

private:
    const MetricsServer::Find find;
};

class Factory : public Poco::Net::TCPServerConnectionFactory {
public:
    Factory(Poco::Net::HTTPServerParams::Ptr params, MetricsServer::Find find, Connections& connections)
        : params(std::move(params)), handlers(new Handlers(std::move(find))), connections(connections)
    {
    }

    Poco::Net::TCPServerConnection* createConnection(const Poco::Net::StreamSocket& socket) override
    {
        return new Connection(socket, params, handlers, connections);
    }

private:
    Poco::Net::HTTPServerParams::Ptr params;
    Poco::Net::HTTPRequestHandlerFactory::Ptr handlers;
    Connections& connections;
};

Poco::Net::HTTPServerParams::Ptr Parameters()
{
    Poco::Net::HTTPServerParams::Ptr params = new Poco::Net::HTTPServerParams;
    params->setKeepAlive(false);
    params->setMaxThreads(maxConnections);
    params->setMaxQueued(maxWaiting);
    params->setTimeout(Poco::Timespan(std::chrono::seconds{patience}.count(), 0));
    return params;
}

}  // namespace

struct MetricsServer::Parts {
    Parts(MetricsListener socket, Find find, const Poco::Net::HTTPServerParams::Ptr& params)
        : listener(std::move(socket)),
          server(new Factory(params, std::move(find), connections), threads, ListeningSocket(listener.Get()), params)
    {
        server.start();
    }
    Parts(const Parts&) = delete;
    Parts& operator=(const Parts&) = delete;
    ~Parts()
    {
        // The server looks every quarter of a second whether it is to end, and at once when something happens here.
        ::shutdown(listener.Get(), SHUT_RDWR);
        server.stop();
        connections.EndAll();
        threads.joinAll();
    }

    MetricsListener listener;
    Connections connections;
    Poco::ThreadPool threads{"metrics", 1, maxConnections};
    Poco::Net::TCPServer server;
};

MetricsServer::MetricsServer(MetricsListener listener, Find find)
    : parts(std::make_unique<Parts>(std::move(listener), std::move(find), Parameters()))
{
}

MetricsServer::~MetricsServer() = default;

void MetricsServer::EndOverdue()
{
    parts->connections.EndOverdue();
}

}  // namespace Agent
