// SPDX-License-Identifier: Apache-2.0
#include "sdk/DockerClient.h"

#include <gmock/gmock.h>

#include <cstdlib>

#include "host/sdk/FakeEngine.h"

namespace {

using namespace std::chrono_literals;
using SDK::DockerClient;

constexpr auto ample = 60'000ms;  // never to pass: what is tested ends by itself
constexpr auto brief = 50ms;      // to pass: what is tested would not end by itself
const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";

TEST(DockerClientTest, TheTimeLimitHoldsForTheCallAsAWhole)
{
    // A limit for each read would never pass: the engine goes on sending.
    for (const std::string& first : {std::string(), ok, ok + "\r\n", chunked + "1;"}) {
        FakeEngine dripper([&first](const std::string& /*target*/, const SDK::FileDescriptor& connection) {
            FakeEngine::Send(connection, first);
            pollfd hangUp{connection.Get(), POLLRDHUP, 0};
            while (::poll(&hangUp, 1, first.empty() ? -1 : 1) == 0 && FakeEngine::Send(connection, "x")) {
            }
        });
        EXPECT_EQ(DockerClient(dripper.SocketPath(), brief).Get("/info").error, "no answer in time") << first;
    }
}

TEST(DockerClientTest, WhatIsNoAnswerIsAnErrorAndKeepsItsBounds)
{
    // Each engine goes on with `repeated` until the client has gone.
    const std::string block(1UL << 20, 'x');
    const std::string field = "X: " + block.substr(0, 1000) + "\r\n";
    const struct {
        std::string first;
        std::string repeated;
        int status;
        std::size_t bodyBytes;
    } rows[] = {
        {"HTTP/1.1 500 Oops\r\nContent-Length: 100\r\n\r\nfirst", "", 500, 5},
        {chunked + "5\r\nhello\r\n", "", 200, 5},
        {chunked + "ffffffffffffffffff\r\n", block, 200, 0},
        {"SSH-2.0-OpenSSH_9\r\n", "", 0, 0},
        {"", "", 0, 0},
        {"", block, 0, 0},
        {ok, field, 200, 0},
        {"", "HTTP/1.1 100 Continue\r\n\r\n", 100, 0},
        {ok + "X: ", block, 200, 0},
        {chunked + "0\r\n", field, 200, 0},
        {ok + "\r\n", block, 200, DockerClient::maxReplyBytes},
    };
    for (const auto& row : rows) {
        FakeEngine engine([&row](const std::string& /*target*/, const SDK::FileDescriptor& connection) {
            for (bool isThere = FakeEngine::Send(connection, row.first); isThere && !row.repeated.empty();) {
                isThere = FakeEngine::Send(connection, row.repeated);
            }
        });
        const DockerClient::Reply reply = DockerClient(engine.SocketPath(), ample).Get("/info");
        const std::string name = row.first + row.repeated.substr(0, 30);
        EXPECT_NE(reply.error, "") << name;
        EXPECT_NE(reply.error, "no answer in time") << name;
        EXPECT_EQ(reply.status, row.status) << name;
        EXPECT_EQ(reply.body.size(), row.bodyBytes) << name;
    }
}

TEST(DockerClientTest, AsksOnceAndOnlyTheSocket)
{
    ::setenv("http_proxy", "http://192.0.2.1:1", 1);
    FakeEngine engine([](const std::string& /*target*/, const SDK::FileDescriptor& connection) {
        FakeEngine::Send(connection, "HTTP/1.1 302 Found\r\nLocation: /other\r\nContent-Length: 2\r\n\r\nok");
    });
    const DockerClient client(engine.SocketPath(), ample);
    const DockerClient::Reply reply = client.Get("/images/a:1/json?x=%7B");
    ::unsetenv("http_proxy");
    EXPECT_EQ(std::tie(reply.status, reply.body, reply.error), std::make_tuple(302, "ok", ""));
    for (const std::string target : {"/a HTTP/1.1\r\nX: y", "/a b", "/a\nb"}) {
        EXPECT_NE(client.Get(target).error, "") << target;
    }
    EXPECT_THAT(engine.Requests(),
                testing::ElementsAre(testing::StartsWith("GET /images/a:1/json?x=%7B HTTP/1.1\r\n")));
}

TEST(DockerClientTest, ASocketThatTakesNoConnectionIsAnError)
{
    const FakeEngine full({});
    const sockaddr_un address = full.Address();
    std::vector<SDK::FileDescriptor> waiting;
    int refused = 0;
    while (refused == 0) {
        waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        refused = ::connect(waiting.back().Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    for (const std::string& path : {full.SocketPath(), std::string("/absent"), std::string(200, 'x'), std::string()}) {
        const DockerClient::Reply reply = DockerClient(path, brief).Get("/info");
        EXPECT_NE(reply.error, "") << path;
        EXPECT_EQ(reply.status, 0) << path;
    }
}

}  // namespace
