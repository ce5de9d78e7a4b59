// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "host/sdk/EngineStream.h"
#include "host/sdk/FakeEngine.h"
#include "sdk/DockerClient.h"

namespace {

using namespace std::chrono_literals;
using SDK::DockerClient;
using SDK::EngineStream;
using testing::ElementsAre;
using testing::StartsWith;
using Peer = FakeEngine::Peer;
using State = EngineStream::State;

constexpr auto ample = 60'000ms;  // never to pass: what is tested ends by itself
constexpr auto brief = 50ms;      // to pass: what is tested would not end by itself
constexpr char timedOut[] = "no answer in time";
const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string chunkedHead = ok + "Transfer-Encoding: chunked\r\n\r\n";

std::string Chunk(const std::string& data)
{
    std::array<char, 32> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", data.size());
    return size.data() + data + "\r\n";
}

DockerClient::Reply GetFrom(const FakeEngine& engine, std::chrono::milliseconds timeout = ample)
{
    return DockerClient(engine.SocketPath(), timeout).Get("/containers/json");
}

TEST(DockerClientTest, TheTimeLimitHoldsForTheCallAsAWhole)
{
    // Were the limit one for each read, the dripping would go on until the size of the head is what ends it.
    for (const std::string& head : {std::string(), ok, ok + "Content-Length: 1000000\r\n\r\n"}) {
        FakeEngine dripper([head](Peer peer) {
            peer.Send(head);
            while (!peer.AwaitHangUp(head.empty() ? -1 : 1) && peer.Send("x")) {
            }
        });
        EXPECT_EQ(GetFrom(dripper, brief).error, timedOut) << head;
    }
}

TEST(DockerClientTest, TheTimeLimitHoldsForAnEngineThatTakesNoMoreConnections)
{
    const FakeEngine engine({});
    const sockaddr_un address = engine.Address();
    std::vector<SDK::FileDescriptor> waiting;
    int refused = 0;
    while (refused == 0) {
        waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        refused = ::connect(waiting.back().Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    EXPECT_EQ(GetFrom(engine, brief).error, timedOut);
}

TEST(DockerClientTest, RefusesPathsAndTargetsThatItCannotUse)
{
    EXPECT_THAT(DockerClient("/absent", ample).Get("/info").error, StartsWith("connect: "));
    EXPECT_THAT(DockerClient(std::string(200, 'x'), ample).Get("/info").error, StartsWith("connect: "));
    EXPECT_EQ(DockerClient("/absent", ample).Get("/info HTTP/1.1\r\nX: y\r\n").error, "not a request target");
}

TEST(DockerClientTest, KeepsWhatCameOfABrokenReplyAndBoundsAnEndlessOne)
{
    FakeEngine cut([](Peer peer) { peer.Send("HTTP/1.1 500 Oops\r\nContent-Length: 100\r\n\r\nfirst"); });
    const DockerClient::Reply part = GetFrom(cut);
    EXPECT_EQ(part.status, 500);
    EXPECT_EQ(part.body, "first");
    EXPECT_NE(part.error, "");
    EXPECT_THAT(cut.Request(), StartsWith("GET /containers/json HTTP/1.1\r\nHost: "));

    FakeEngine endless([](Peer peer) {
        peer.Send(ok + "\r\n");
        while (peer.Send(std::string(1 << 20, 'x'))) {
        }
    });
    const DockerClient::Reply whole = GetFrom(endless);
    EXPECT_EQ(whole.body.size(), DockerClient::maxReplyBytes);
    EXPECT_THAT(whole.error, testing::HasSubstr("too long"));
}

struct Received {
    State state = State::Open;
    std::vector<std::string> lines;
    std::string error;
};

// Reads as an event loop does, until the stream is over.
Received Stream(const std::string& first, const std::string& second)
{
    FakeEngine engine([&](Peer peer) { peer.Send(first) && peer.Send(second); });
    Received received;
    auto stream = EngineStream::Open(engine.SocketPath(), "/events", ample, received.error);
    while (stream && (received.state = stream->ReadLines(received.lines)) == State::Open) {
        pollfd wanted{stream->Fd(), POLLIN, 0};
        ::poll(&wanted, 1, -1);
    }
    return received;
}

TEST(EngineStreamTest, DeliversWhatCameBeforeTheEndWhateverTheEndIs)
{
    const std::string longest(EngineStream::maxLineBytes, 'x');
    const Received whole = Stream(chunkedHead + Chunk(longest + "\ntw"), Chunk("o\r\n\nend") + "0\r\n\r\n");
    EXPECT_EQ(whole.state, State::Ended);
    EXPECT_THAT(whole.lines, ElementsAre(longest, "two", "end"));
    for (const std::string& broken : {std::string("nonsense\r\n"), std::string("5\r\nhal"), Chunk(longest + "x\n")}) {
        const Received part = Stream(chunkedHead + Chunk("one\n"), broken);
        EXPECT_EQ(part.state, State::Failed);
        EXPECT_THAT(part.lines, ElementsAre("one"));
    }
    EXPECT_EQ(Stream("HTTP/1.1 400 Bad Request\r\n\r\n", "{}").error, "status 400");
}

}  // namespace
