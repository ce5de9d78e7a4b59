// SPDX-License-Identifier: Apache-2.0
#include "sdk/DockerClient.h"

#include <gmock/gmock.h>

#include "host/sdk/FakeEngine.h"

namespace {

using namespace std::chrono_literals;
using SDK::DockerClient;

TEST(DockerClientTest, AnEngineThatNeverEndsItsAnswerMeetsTheDeadlineOrTheBounds)
{
    // What the engine begins with, what it goes on with until the client has gone, with which pauses (a time limit for
    // each read would never pass), and how much body is kept.
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
    const std::string field = "X: " + std::string(1000, 'x') + "\r\n";
    const std::tuple<std::string, std::string, std::chrono::milliseconds, std::size_t> rows[] = {
        {ok, "X: x\r\n", 1ms, 0},
        {chunked + "0\r\n", field, 0ms, 0},  // trailers
        {ok + "\r\n", field, 0ms, DockerClient::maxReplyBytes},
        {ok + "Content-Length: 9\r\n\r\nfirst", "", 0ms, 5},
        {"SSH-2.0\r\n", "", 0ms, 0}};
    for (const auto& [first, repeated, pause, bodyBytes] : rows) {
        FakeEngine engine([first = first, repeated = repeated, pause = pause](const std::string& /*target*/,
                                                                              const SDK::FileDescriptor& connection) {
            for (bool isThere = FakeEngine::Send(connection, first); isThere && !repeated.empty();) {
                std::this_thread::sleep_for(pause);
                isThere = FakeEngine::Send(connection, repeated);
            }
        });
        const auto reply = DockerClient(engine.SocketPath(), pause > 0ms ? 50ms : 60'000ms).Get("/info");
        EXPECT_NE(reply.error, "") << first;
        EXPECT_EQ(reply.error == "no answer in time", pause > 0ms) << first << reply.error;
        EXPECT_EQ(reply.body.size(), bodyBytes) << first;
    }
}

}  // namespace
