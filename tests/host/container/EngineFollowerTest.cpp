// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineFollower.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <thread>

#include "framework/Engine.h"
#include "host/sdk/FileDescriptor.h"
#include "tests/host/container/ContainerFixture.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

constexpr char list[] = "/containers/json?all=1";

// A container engine on a socket of its own: answers from a table, one request a connection, and keeps the stream of
// events open. What its reader is sent is there when SendEvents and BreakEvents return.
class EngineServer {
public:
    EngineServer()
    {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        SocketPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(listener.Get(), 16), 0);
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

    // What a GET of `target` answers; 404 for all others.
    void Answer(const std::string& target, const std::string& body)
    {
        const std::lock_guard lock{mutex};
        answers[target] = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    void SendEvents(const std::string& lines)
    {
        const std::lock_guard lock{mutex};
        Send(events, lines);
    }
    void BreakEvents()
    {
        const std::lock_guard lock{mutex};
        events.Reset();
    }
    int Requests()
    {
        const std::lock_guard lock{mutex};
        return requests;
    }

private:
    static void Send(const SDK::FileDescriptor& to, const std::string& bytes)
    {
        ::send(to.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void Serve()
    {
        while (SDK::FileDescriptor connection{::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)}) {
            std::string request;
            char byte = 0;
            while (!request.ends_with("\r\n\r\n") && ::recv(connection.Get(), &byte, 1, 0) == 1) {
                request += byte;
            }
            const std::size_t start = request.find(' ') + 1;
            const std::string target = request.substr(start, request.find(' ', start) - start);
            const std::lock_guard lock{mutex};
            ++requests;
            if (target.starts_with("/events")) {
                Send(connection, "HTTP/1.1 200 OK\r\n\r\n");
                events = std::move(connection);
            } else {
                const auto found = answers.find(target);
                Send(connection, found == answers.end() ? "HTTP/1.1 404 Not Found\r\n\r\n" : found->second);
            }
        }
    }

    TemporaryDirectory directory;
    SDK::FileDescriptor listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::mutex mutex;  // guards what follows
    std::map<std::string, std::string> answers;
    SDK::FileDescriptor events;
    int requests = 0;
    std::thread thread;
};

class EngineFollowerTest : public testing::Test {
protected:
    void Container(const std::string& id, const std::string& image, const std::string& answeredId)
    {
        server.Answer("/containers/" + id + "/json",
                      R"({"Id":")" + answeredId + R"(","Config":{"Image":")" + image + "\"}}");
    }
    void SendEvent(const std::string& action, const std::string& id)
    {
        server.SendEvents(R"({"Type":"container","Action":")" + action + R"(","Actor":{"ID":")" + id +
                          R"(","Attributes":{"image":"from-the-event"}}})" + "\n");
        follower.Step(now);
    }

    Support::FakeSystem world;
    EngineServer server;
    Engine::MetadataCache cache;
    Engine::EngineFollower follower{server.SocketPath(), cache, [] {
                                        return false;
                                    }};
    Engine::EngineFollower::Clock::time_point now = Engine::EngineFollower::Clock::now();
};

TEST_F(EngineFollowerTest, FollowsTheEvents)
{
    server.Answer(list, R"([{"Id":")" + idA + R"("},{"Id":"no/id"},{"Id":")" + idB + R"("},7])");
    Container(idA, "bb:1", idA);
    Container(idB, "forged", idA);  // answers for another
    follower.Step(now);
    EXPECT_TRUE(follower.HasReadAll());
    EXPECT_EQ(cache.ImageNameOf(idA), "bb:1");
    server.Answer("/images/from-the-event/json", R"({"Id":"sha256:1"})");
    SendEvent("create", idB);
    EXPECT_EQ(cache.ImageNameOf(idB), "from-the-event") << "it cannot be inspected";
    EXPECT_EQ(cache.Find(idB)->imageId, "sha256:1") << "but the image can";
    Container(idB, "bb:2", idB);
    SendEvent("start", idB);
    EXPECT_EQ(cache.ImageNameOf(idB), "bb:2");
    SendEvent("destroy", idB);
    EXPECT_EQ(cache.ImageNameOf(idB), "bb:2") << "alarms about what is gone come late";
}

TEST_F(EngineFollowerTest, ReadsEverythingAnewAfterABreak)
{
    server.Answer(list, "[]");
    follower.Step(now);
    server.Answer(list, "<html>");
    server.BreakEvents();
    follower.Step(now);
    EXPECT_TRUE(follower.IsUnreachable());
    follower.Step(now += follower.firstPause);  // gets the odd answer, and waits twice as long
    Container(idA, "bb:1", idA);
    server.Answer(list, R"([{"Id":")" + idA + "\"}]");
    follower.Step(now += follower.firstPause);
    EXPECT_EQ(cache.ImageNameOf(idA), "");
    follower.Step(now += follower.firstPause);
    EXPECT_EQ(cache.ImageNameOf(idA), "bb:1");
    EXPECT_FALSE(follower.IsUnreachable());
}

TEST_F(EngineFollowerTest, OthersDoNotAskAgainSoonAndForPlainIdsOnly)
{
    const Framework::Engine agent;
    Engine::ContainerInfo info;
    SDK::DockerClient client{server.SocketPath()};
    info.imageName = "somebody else's";
    EXPECT_TRUE(DockerUtil::GetContainerInfo(client, idA, info));
    EXPECT_EQ(info.id, idA);
    EXPECT_EQ(info.imageName, "") << "a container without a name is one all the same";
    Container(idA, "bb:1", idA);
    EXPECT_TRUE(DockerUtil::GetContainerInfo(client, idA, info));
    EXPECT_EQ(info.imageName, "");
    for (const std::string& id : {std::string{}, "../" + idA, std::string{"a\r\nX: y"}, std::string(129, 'a')}) {
        EXPECT_FALSE(DockerUtil::GetContainerInfo(client, id, info)) << id;
    }
    EXPECT_EQ(server.Requests(), 1);
    Container(idB, "bb:2", idB);
    EXPECT_TRUE(DockerUtil::GetContainerInfo(client, idB, info));
    EXPECT_EQ(info.imageName, "bb:2");
}

}  // namespace
