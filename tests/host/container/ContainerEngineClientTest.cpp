// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerEngineClient.h"

#include <gtest/gtest.h>

#include <map>

#include "host/sdk/FakeEngine.h"

namespace {

// 64 digits of one kind, as engines make them.
std::string Id(char digit)
{
    return std::string(64, digit);
}

class ContainerEngineClientTest : public testing::Test {
protected:
    // What a GET of `target` gets from then on: empty for no answer at all. Before, it is 404.
    void Answer(const std::string& target, const std::string& body)
    {
        const std::lock_guard lock{mutex};
        answers[target] = body.empty() ? "" : "HTTP/1.1 200 OK\r\n\r\n" + body;
    }
    void List(const std::string& list) { Answer("/containers/json?all=1", list); }
    // `image`: empty when the engine is stuck. `answered`: the container that it says this is, if not the one asked
    // for.
    void Container(char digit, const std::string& image, std::optional<char> answered = {})
    {
        const std::string id = Id(answered.value_or(digit));
        Answer("/containers/" + Id(digit) + "/json",
               image.empty() ? "" : R"({"Id":")" + id + R"(","Config":{"Image":")" + image + "\"}}");
    }
    void Event(const std::string& action, char digit)
    {
        Events(R"({"Type":"container","Action":")" + action + R"(","Actor":{"ID":")" + Id(digit) +
               R"(","Attributes":{"image":"from-the-event"}}})" + "\n");
    }
    // What is sent has come when the client takes its step.
    void Events(const std::string& bytes)
    {
        {
            const std::lock_guard lock{mutex};
            FakeEngine::Send(events, bytes);
        }
        StepAfter({});
    }
    void StepAfter(std::chrono::seconds pause) { client.Step(now += pause); }
    std::string ImageOf(char digit) const { return cache.ImageNameOf(Id(digit)); }

    std::mutex mutex;  // guards what the engine's thread uses
    std::map<std::string, std::string> answers;
    SDK::FileDescriptor events;
    FakeEngine engine{[this](const std::string& target, SDK::FileDescriptor& connection) {
        const std::lock_guard lock{mutex};
        if (target.starts_with("/events")) {
            FakeEngine::Send(connection, "HTTP/1.1 200 OK\r\n\r\n");
            events = std::move(connection);
        } else {
            const auto found = answers.find(target);
            FakeEngine::Send(connection, found == answers.end() ? "HTTP/1.1 404 Not Found\r\n\r\n" : found->second);
        }
    }};
    Engine::MetadataCache cache;
    Engine::ContainerEngineClient client{engine.SocketPath(), cache, [] { return false; }, std::chrono::hours{1}};
    Engine::ContainerEngineClient::Clock::time_point now = Engine::ContainerEngineClient::Clock::now();
};

TEST_F(ContainerEngineClientTest, FollowsTheEventsAndReadsEverythingAnewAfterABreak)
{
    List(R"([{"Id":")" + Id('a') + R"("},{"Id":"no/id"},{"Id":")" + Id('b') + R"("},7])");
    Container('a', "a:1");
    Container('b', "forged", 'a');  // answers for another
    StepAfter({});
    EXPECT_TRUE(client.HasReadAll());
    EXPECT_EQ(ImageOf('a'), "a:1");
    Answer("/images/from-the-event/json", R"({"Id":"sha256:1"})");
    Event("create", 'b');
    EXPECT_EQ(ImageOf('b'), "from-the-event") << "it cannot be inspected";
    EXPECT_EQ(cache.Find(Id('b'))->imageId, "sha256:1") << "but the image can";
    Container('b', "b:2");
    Events("\n7\r\n{\"Type\":\"contai");
    Events("ner\"}\n");
    Event("start", 'b');
    EXPECT_EQ(ImageOf('b'), "b:2");
    Event("destroy", 'b');
    StepAfter(cache.keepGone);
    EXPECT_EQ(ImageOf('b'), "b:2") << "alarms about what is gone come late";
    StepAfter(cache.keepGone);
    EXPECT_EQ(ImageOf('b'), "");
    EXPECT_EQ(ImageOf('a'), "a:1");

    List("<html>");
    Events("{\"half");
    {
        const std::lock_guard lock{mutex};
        events.Reset();
    }
    StepAfter({});
    EXPECT_TRUE(client.IsUnreachable());
    StepAfter(client.firstPause);  // gets the odd answer, and waits twice as long
    Container('c', "c:1");
    List(R"([{"Id":")" + Id('c') + "\"}]");
    StepAfter(client.firstPause);
    EXPECT_EQ(ImageOf('c'), "");
    StepAfter(client.firstPause);
    EXPECT_EQ(ImageOf('c'), "c:1");
    Event("create", 'd');
    EXPECT_EQ(ImageOf('d'), "from-the-event");
    for (int sent = 0; sent <= 16; ++sent) {
        EXPECT_FALSE(client.IsUnreachable());
        Events(std::string(client.maxLineBytes / 16, 'x'));
    }
    EXPECT_TRUE(client.IsUnreachable()) << "what is no line is not kept";
    StepAfter(2 * cache.keepGone);
    EXPECT_EQ(ImageOf('a'), "") << "it was not listed any more";
}

TEST_F(ContainerEngineClientTest, AsksAgainAboutWhatWasLeftUnanswered)
{
    // More containers than a step bears with are stuck, and come first.
    std::string containers;
    for (const char digit : {'0', '1', '2', '3', 'a'}) {
        containers += (containers.empty() ? R"({"Id":")" : R"(,{"Id":")") + Id(digit) + "\"}";
        Container(digit, digit == 'a' ? "a:1" : "");
    }
    List("[" + containers + "]");
    StepAfter({});
    EXPECT_EQ(ImageOf('a'), "");
    Container('b', "b:2");
    Event("start", 'b');
    EXPECT_EQ(ImageOf('b'), "b:2") << "what is new goes first";
    EXPECT_EQ(client.NextStep(), now + client.firstPause);
    StepAfter(client.firstPause);
    EXPECT_EQ(ImageOf('a'), "a:1");
    for (const char digit : {'0', '1', '2', '3'}) {
        Container(digit, "late");
    }
    StepAfter(2 * client.firstPause);
    EXPECT_EQ(ImageOf('3'), "late");
    EXPECT_GT(client.NextStep(), now + client.longestPause) << "nothing is left to ask";
}

}  // namespace
