// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <future>

#include "host/sdk/EngineStream.h"
#include "host/sdk/FakeEngine.h"
#include "sdk/DockerClient.h"

namespace {

using namespace std::chrono_literals;
using SDK::DockerClient;
using SDK::EngineStream;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Peer = FakeEngine::Peer;

constexpr auto ample = 60'000ms;  // never to pass: what is tested ends by itself
constexpr auto brief = 50ms;      // to pass: what is tested would not end by itself
constexpr char timedOut[] = "no answer in time";
const std::string chunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

std::string Chunk(const std::string& data)
{
    std::array<char, 32> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", data.size());
    return size.data() + data + "\r\n";
}

DockerClient::Reply GetFrom(FakeEngine& engine, std::chrono::milliseconds timeout = ample)
{
    return DockerClient(engine.SocketPath(), timeout).Get("/containers/json");
}

TEST(DockerClientTest, TheTimeLimitHoldsForTheCallAsAWhole)
{
    FakeEngine silent([](const Peer& peer) { peer.AwaitHangUp(); });
    const DockerClient::Reply none = GetFrom(silent, brief);
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.error, timedOut);

    // Were the limit one for each read, the dripping would go on until the size of the head is what ends it.
    const auto drip = [](const std::string& head) {
        return [head](const Peer& peer) {
            peer.Send(head);
            while (!peer.AwaitHangUp(1) && peer.Send("x")) {
            }
        };
    };
    FakeEngine headDripper(drip("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(GetFrom(headDripper, brief).error, timedOut);
    FakeEngine bodyDripper(drip("HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n"));
    const DockerClient::Reply part = GetFrom(bodyDripper, brief);
    EXPECT_EQ(part.error, timedOut);
    EXPECT_LT(part.body.size(), 1'000'000U);
}

TEST(DockerClientTest, TheTimeLimitHoldsForAnEngineThatTakesNoMoreConnections)
{
    const TempDirectory directory;
    const SDK::FileDescriptor listener = FakeEngine::Listen(directory / "full.sock");
    const sockaddr_un address = FakeEngine::AddressOf(directory / "full.sock");
    std::vector<SDK::FileDescriptor> waiting;
    int refused = 0;
    while (refused == 0) {
        waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        refused = ::connect(waiting.back().Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    const DockerClient::Reply reply = DockerClient(directory / "full.sock", brief).Get("/info");
    EXPECT_EQ(reply.status, 0);
    EXPECT_EQ(reply.error, timedOut);
}

TEST(DockerClientTest, TellsWhyThereIsNoEngine)
{
    const TempDirectory directory;
    directory.Write("file", "");
    for (const std::string& path : {directory / "absent", directory / "file", std::string(), std::string(200, 'x')}) {
        const DockerClient::Reply reply = DockerClient(path, ample).Get("/info");
        EXPECT_EQ(reply.status, 0) << path;
        EXPECT_THAT(reply.error, StartsWith("connect: ")) << path;
    }
}

TEST(DockerClientTest, SendsNoTargetThatCouldForgeARequest)
{
    for (const char* target : {"", "info", "/info HTTP/1.1\r\nX: y\r\n", "/a b", "/\x7f", "/\xc3\xa9", "/\t"}) {
        const DockerClient::Reply reply = DockerClient("/nowhere", ample).Get(target);
        EXPECT_EQ(reply.error, "not a request target") << target;
    }
}

TEST(DockerClientTest, KeepsWhatCameOfABrokenReply)
{
    FakeEngine cut([](const Peer& peer) { peer.Send("HTTP/1.1 500 Oops\r\nContent-Length: 100\r\n\r\nfirst"); });
    const DockerClient::Reply reply = GetFrom(cut);
    EXPECT_EQ(reply.status, 500);
    EXPECT_EQ(reply.body, "first");
    EXPECT_THAT(reply.error, HasSubstr("ended within"));

    EXPECT_THAT(cut.Request(), StartsWith("GET /containers/json HTTP/1.1\r\nHost: "));
}

TEST(DockerClientTest, BoundsTheBody)
{
    FakeEngine endless([](const Peer& peer) {
        peer.Send("HTTP/1.1 200 OK\r\n\r\n");
        while (peer.Send(std::string(1 << 20, 'x'))) {
        }
    });
    const DockerClient::Reply reply = GetFrom(endless);
    EXPECT_EQ(reply.body.size(), DockerClient::maxReplyBytes);
    EXPECT_THAT(reply.error, HasSubstr("too long"));
}

struct Received {
    EngineStream::State state = EngineStream::State::Open;
    std::vector<std::string> lines;
    std::string error;
};

// Reads as an event loop does, until the stream is over or `enough` lines have come.
Received ReadFrom(EngineStream& stream, std::size_t enough = SIZE_MAX)
{
    Received received;
    received.state = stream.ReadLines(received.lines);
    while (received.state == EngineStream::State::Open && received.lines.size() < enough) {
        pollfd wanted{stream.Fd(), POLLIN, 0};
        ::poll(&wanted, 1, -1);
        received.state = stream.ReadLines(received.lines);
    }
    received.error = stream.Error();
    return received;
}

Received Stream(const std::vector<std::string>& sent)
{
    FakeEngine engine([&sent](const Peer& peer) {
        for (const std::string& piece : sent) {
            peer.Send(piece);
        }
    });
    std::string error;
    auto stream = EngineStream::Open(engine.SocketPath(), "/events", ample, error);
    if (!stream) {
        ADD_FAILURE() << error;
        return {};
    }
    return ReadFrom(*stream);
}

TEST(EngineStreamTest, DeliversLinesWhileTheStreamGoesOn)
{
    std::promise<void> firstRead;
    FakeEngine engine([&firstRead](const Peer& peer) {
        peer.Send(chunkedHead + Chunk("{\"a\":1}\n{\"b\""));
        firstRead.get_future().wait();
        peer.Send(Chunk(":2}\r\n\n"));
        peer.AwaitHangUp();
    });
    std::string error;
    {
        auto stream = EngineStream::Open(engine.SocketPath(), "/events?filters=x", ample, error);
        ASSERT_TRUE(stream) << error;
        EXPECT_THAT(ReadFrom(*stream, 1).lines, ElementsAre("{\"a\":1}"));
        std::vector<std::string> none;
        EXPECT_EQ(stream->ReadLines(none), EngineStream::State::Open);  // nothing there: it returns all the same
        EXPECT_TRUE(none.empty());
        firstRead.set_value();
        EXPECT_THAT(ReadFrom(*stream, 1).lines, ElementsAre("{\"b\":2}"));
    }
    EXPECT_THAT(engine.Request(), StartsWith("GET /events?filters=x HTTP/1.1\r\n"));
}

TEST(EngineStreamTest, DeliversTheSameLinesWhereverTheStreamIsCut)
{
    const std::string text = chunkedHead + Chunk("one\ntw") + Chunk("o\nend") + "0\r\n\r\n";
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        const Received received = Stream({text.substr(0, cut), text.substr(cut)});
        EXPECT_EQ(received.state, EngineStream::State::Ended) << cut << received.error;
        EXPECT_THAT(received.lines, ElementsAre("one", "two", "end")) << cut;
    }
}

TEST(EngineStreamTest, DeliversWhatCameBeforeItBrokeOff)
{
    for (const std::string& broken : {std::string(), std::string("nonsense\r\n"), std::string("5\r\nhal")}) {
        const Received received = Stream({chunkedHead + Chunk("one\n"), broken});
        EXPECT_EQ(received.state, EngineStream::State::Failed) << broken;
        EXPECT_THAT(received.lines, ElementsAre("one")) << broken;
        EXPECT_NE(received.error, "");
    }
}

TEST(EngineStreamTest, BoundsALine)
{
    const std::string longest(EngineStream::maxLineBytes, 'x');
    const Received fits = Stream({chunkedHead, Chunk(longest + "\n"), "0\r\n\r\n"});
    EXPECT_EQ(fits.state, EngineStream::State::Ended) << fits.error;
    EXPECT_THAT(fits.lines, ElementsAre(longest));
    const Received tooLong = Stream({chunkedHead, Chunk("one\n" + longest + "x\n"), Chunk("two\n")});
    EXPECT_EQ(tooLong.state, EngineStream::State::Failed);
    EXPECT_THAT(tooLong.lines, ElementsAre("one"));
    EXPECT_EQ(tooLong.error, "a line is too long");
}

TEST(EngineStreamTest, TellsWhyItDidNotOpen)
{
    std::string error;
    FakeEngine silent([](const Peer& peer) { peer.AwaitHangUp(); });
    EXPECT_FALSE(EngineStream::Open(silent.SocketPath(), "/events", brief, error));
    EXPECT_EQ(error, timedOut);
    FakeEngine refusing([](const Peer& peer) { peer.Send("HTTP/1.1 400 Bad Request\r\n\r\n{}"); });
    EXPECT_FALSE(EngineStream::Open(refusing.SocketPath(), "/events", ample, error));
    EXPECT_EQ(error, "status 400");
}

}  // namespace
