// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerEngineClient.h"

#include <gtest/gtest.h>

#include <map>

#include "host/sdk/FakeEngine.h"
#include "tests/host/container/ContainerFixture.h"
#include "tests/support/FakeSystem.h"

namespace {

constexpr char list[] = "/containers/json?all=1";

class ContainerEngineClientTest : public testing::Test {
protected:
    // What a GET of `target` gets from then on: empty for no answer at all. Before, it is 404.
    void Answer(const std::string& target, const std::string& body)
    {
        const std::lock_guard lock{mutex};
        answers[target] = body.empty() ? "" : "HTTP/1.1 200 OK\r\n\r\n" + body;
    }
    void Container(const std::string& id, const std::string& image, const std::string& answeredId)
    {
        Answer("/containers/" + id + "/json", R"({"Id":")" + answeredId + R"(","Config":{"Image":")" + image + "\"}}");
    }
    void SendEvent(const std::string& action, const std::string& id)
    {
        SendEvents(R"({"Type":"container","Action":")" + action + R"(","Actor":{"ID":")" + id +
                   R"(","Attributes":{"image":"from-the-event"}}})" + "\n");
    }
    // What is sent has come when the client takes its step.
    void SendEvents(const std::string& bytes)
    {
        {
            const std::lock_guard lock{mutex};
            FakeEngine::Send(events, bytes);
        }
        client.Step(now);
    }
    void BreakEvents()
    {
        const std::lock_guard lock{mutex};
        events.Reset();
    }
    void Serve(const std::string& target, SDK::FileDescriptor& connection)
    {
        const std::lock_guard lock{mutex};
        if (target.starts_with("/events")) {
            FakeEngine::Send(connection, "HTTP/1.1 200 OK\r\n\r\n");
            events = std::move(connection);
        } else {
            const auto found = answers.find(target);
            FakeEngine::Send(connection, found == answers.end() ? "HTTP/1.1 404 Not Found\r\n\r\n" : found->second);
        }
    }

    Support::FakeSystem world;
    std::mutex mutex;  // guards what the engine's thread uses
    std::map<std::string, std::string> answers;
    SDK::FileDescriptor events;
    FakeEngine engine{[this](const std::string& target, SDK::FileDescriptor& connection) {
        Serve(target, connection);
    }};
    Engine::MetadataCache cache;
    Engine::ContainerEngineClient client{engine.SocketPath(), cache, [] { return false; }, std::chrono::hours{1}};
    Engine::ContainerEngineClient::Clock::time_point now = Engine::ContainerEngineClient::Clock::now();
};

TEST_F(ContainerEngineClientTest, FollowsTheEvents)
{
    Answer(list, R"([{"Id":")" + idA + R"("},{"Id":"no/id"},{"Id":")" + idB + R"("},7])");
    Container(idA, "bb:1", idA);
    Container(idB, "forged", idA);  // answers for another
    client.Step(now);
    EXPECT_TRUE(client.HasReadAll());
    EXPECT_EQ(cache.ImageNameOf(idA), "bb:1");
    Answer("/images/from-the-event/json", R"({"Id":"sha256:1"})");
    SendEvent("create", idB);
    EXPECT_EQ(cache.ImageNameOf(idB), "from-the-event") << "it cannot be inspected";
    EXPECT_EQ(cache.Find(idB)->imageId, "sha256:1") << "but the image can";
    Container(idB, "bb:2", idB);
    SendEvents("\n7\r\n{\"Type\":\"contai");
    SendEvents("ner\"}\n");
    SendEvent("start", idB);
    EXPECT_EQ(cache.ImageNameOf(idB), "bb:2");
    SendEvent("destroy", idB);
    client.Step(now += cache.keepGone);
    EXPECT_EQ(cache.ImageNameOf(idB), "bb:2") << "alarms about what is gone come late";
    client.Step(now += cache.keepGone);
    EXPECT_EQ(cache.Find(idB), nullptr);
    EXPECT_NE(cache.Find(idA), nullptr);
}

TEST_F(ContainerEngineClientTest, ReadsEverythingAnewAfterABreak)
{
    Answer(list, R"([{"Id":")" + idB + "\"}]");
    Container(idB, "bb:2", idB);
    client.Step(now);
    EXPECT_NE(cache.Find(idB), nullptr);
    Answer(list, "<html>");
    SendEvents("{\"half");
    BreakEvents();
    client.Step(now);
    EXPECT_TRUE(client.IsUnreachable());
    client.Step(now += client.firstPause);  // gets the odd answer, and waits twice as long
    Container(idA, "bb:1", idA);
    Answer(list, R"([{"Id":")" + idA + "\"}]");
    client.Step(now += client.firstPause);
    EXPECT_EQ(cache.ImageNameOf(idA), "");
    client.Step(now += client.firstPause);
    EXPECT_EQ(cache.ImageNameOf(idA), "bb:1");
    const std::string idC(64, 'c');
    SendEvent("create", idC);
    EXPECT_EQ(cache.ImageNameOf(idC), "from-the-event");
    const std::string piece(client.maxLineBytes / 16, 'x');
    for (int sent = 0; sent <= 16; ++sent) {
        EXPECT_FALSE(client.IsUnreachable());
        SendEvents(piece);
    }
    EXPECT_TRUE(client.IsUnreachable()) << "what is no line is not kept";
    client.Step(now += 2 * cache.keepGone);
    EXPECT_EQ(cache.Find(idB), nullptr) << "it was not listed any more";
}

TEST_F(ContainerEngineClientTest, AsksAgainAboutWhatWasLeftUnanswered)
{
    // More containers than a step bears with are stuck, and come first.
    std::string ids;
    for (const char digit : {'0', '1', '2', '3'}) {
        ids += "{\"Id\":\"" + std::string(64, digit) + "\"},";
        Answer("/containers/" + std::string(64, digit) + "/json", "");
    }
    Answer(list, "[" + ids + "{\"Id\":\"" + idA + "\"}]");
    Container(idA, "bb:1", idA);
    client.Step(now);
    EXPECT_EQ(cache.ImageNameOf(idA), "");
    Container(idB, "bb:2", idB);
    SendEvent("start", idB);
    EXPECT_EQ(cache.ImageNameOf(idB), "bb:2") << "what is new goes first";
    EXPECT_EQ(client.NextStep(), now + client.firstPause);
    client.Step(now += client.firstPause);
    EXPECT_EQ(cache.ImageNameOf(idA), "bb:1");
    for (const char digit : {'0', '1', '2', '3'}) {
        Container(std::string(64, digit), "late", std::string(64, digit));
    }
    client.Step(now += 2 * client.firstPause);
    EXPECT_EQ(cache.ImageNameOf(std::string(64, '3')), "late");
    EXPECT_GT(client.NextStep(), now + client.longestPause) << "nothing is left to ask";
}

}  // namespace
