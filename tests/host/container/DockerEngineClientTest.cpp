// SPDX-License-Identifier: Apache-2.0
#include "host/container/DockerEngineClient.h"

#include <gmock/gmock.h>

#include <map>
#include <regex>

#include "host/sdk/FakeEngine.h"

namespace {

const std::string ok = "HTTP/1.1 200 OK\r\n\r\n";

// 64 digits of one kind, as engines make them.
constexpr auto Id = [](char digit) {
    return std::string(64, digit);
};

class DockerEngineClientTest : public testing::Test {
protected:
    // What a GET of `target` gets from then on. Before, it is 404.
    void Answer(const std::string& target, const std::string& body) { answers[target] = ok + body; }
    void List(const std::string& list) { Answer("/containers/json?all=1", list); }
    // `answered`: the container that the engine says this is, if not the one asked for.
    void Container(char digit, const std::string& image, std::optional<char> answered = {})
    {
        const std::string id = Id(answered.value_or(digit));
        Answer("/containers/" + Id(digit) + "/json", R"({"Id":")" + id + R"(","Config":{"Image":")" + image + "\"}}");
    }
    void Event(const std::string& action, char digit)
    {
        Events(R"({"Type":"container","Action":")" + action + R"(","Actor":{"ID":")" + Id(digit) +
               R"(","Attributes":{"image":"from-the-event"}}})" + "\n");
    }
    // What is sent has come when the client takes its step.
    void Events(const std::string& bytes)
    {
        FakeEngine::Send(events, bytes);
        StepAfter({});
    }
    void StepAfter(std::chrono::milliseconds pause)
    {
        cache.Purge(now += pause);
        client.Step(now);
    }
    std::string ImageOf(char digit) const { return cache.ImageNameOf(Id(digit)); }

    // The engine's thread uses both until it has answered, while the client waits.
    std::map<std::string, std::string> answers;
    SDK::FileDescriptor events;
    FakeEngine engine{[this](const std::string& target, SDK::FileDescriptor& connection) {
        const auto found = answers.find(target);
        if (target.starts_with("/events")) {
            events = std::move(connection);
            FakeEngine::Send(events, ok);
        } else {
            FakeEngine::Send(connection, found == answers.end() ? "HTTP/1.1 404 Not Found\r\n\r\n" : found->second);
        }
    }};
    Engine::MetadataCache cache;
    Engine::DockerEngineClient client{
        {"docker", engine.SocketPath()}, cache, 1, [] { return false; }, std::chrono::hours{1}};
    Engine::DockerEngineClient::Clock::time_point now = Engine::DockerEngineClient::Clock::now();
};

TEST_F(DockerEngineClientTest, FollowsTheEventsAndReadsEverythingAnewAfterABreak)
{
    List(R"([{"Id":")" + Id('a') + R"("},{"Id":"no/id"},{"Id":")" + Id('b') + R"("},7])");
    Container('a', "a:1");
    Container('b', "forged", 'a');  // answers for another
    StepAfter({});
    EXPECT_TRUE(client.HasReadAll());
    EXPECT_EQ(ImageOf('a'), "a:1");
    Answer("/images/from-the-event/json", R"({"Id":"sha256:1","RepoDigests":["a@sha256:2"]})");
    Event("create", 'b');
    EXPECT_EQ(ImageOf('b'), "from-the-event") << "it cannot be inspected";
    EXPECT_EQ(cache.Find(Id('b'))->imageId, "sha256:1") << "but the image can";
    EXPECT_EQ(cache.Find(Id('b'))->imageDigest, "sha256:2");
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
    events.Reset();
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
    StepAfter(2 * cache.keepGone);
    EXPECT_EQ(ImageOf('a'), "") << "it was not listed any more";
}

TEST_F(DockerEngineClientTest, WhatIsTooLongCostsOneContainerItsNamesAndNoOther)
{
    const std::string labels = R"("Labels":{"l":")" + std::string(17'000'000, 'x') + "\"}}";
    List(R"([{"Id":")" + Id('a') + R"("},{"Id":")" + Id('b') + "\"," + labels + R"(,{"Id":")" + Id('c') + "\"}]");
    Container('a', "a:1");
    Answer("/containers/" + Id('b') + "/json", R"({"Id":")" + Id('b') + "\"," + labels);
    Container('c', "c:1");
    StepAfter({});
    Event("start", 'b');
    for (int sent = 0; sent <= 16; ++sent) {
        Events(std::string(client.maxLineBytes / 16, 'x'));
    }
    Events("\n");
    EXPECT_FALSE(client.IsUnreachable());
    EXPECT_GT(client.NextStep(), now + client.longestPause) << "it is not asked about for ever";
    Event("create", 'd');
    StepAfter(2 * cache.keepGone);
    EXPECT_EQ(ImageOf('a') + ImageOf('b') + ImageOf('c') + ImageOf('d'), "a:1c:1from-the-event");
}

TEST_F(DockerEngineClientTest, AsksAgainAboutWhatWasLeftUnanswered)
{
    // More containers than a step bears with are stuck, and come first.
    std::string containers;
    for (const char digit : {'0', '1', '2', '3'}) {
        containers += R"({"Id":")" + Id(digit) + "\"},";
        answers["/containers/" + Id(digit) + "/json"] = "";
    }
    List("[" + containers + R"({"Id":")" + Id('a') + "\"}]");
    Container('a', "a:1");
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

// Members as every other type of JSON: no exception, and what is odd is absent.
TEST(EngineDocumentsTest, OddTypesCountAsAbsent)
{
    using namespace Engine::EngineDocuments;
    for (const std::string odd : {"null", "-1", "1e300", "\"/x\"", "[1,[2]]", "{\"a\":{}}"}) {
        const auto with = [&](const char* text) {
            return std::regex_replace(text, std::regex{"@"}, odd);
        };
        const auto inspected = ParseInspected(with(R"({"Id":"x","Name":@,"Image":@,"Config":@,"State":@,"Mounts":@})"));
        EXPECT_TRUE(inspected && inspected->pid == 0 && inspected->info.mountDestinations.empty()) << odd;
        EXPECT_TRUE(ParseInspected(with(R"({"Id":"x","State":{"Pid":@},"Config":{"Image":@}})"))) << odd;
        EXPECT_FALSE(ParseInspected(with(R"({"Id":@})"))) << odd;
        EXPECT_FALSE(ParseEvent(with(R"({"Type":"container","Action":"start","Actor":@})"))) << odd;
        EXPECT_FALSE(ParseEvent(odd)) << odd;
        EXPECT_EQ(ListReader{}.Take(odd), odd.front() == '[') << odd;
        ListReader list;
        for (const char c : with(R"( [@,{"Id":@},{"x":"]}\",[{","Id":"ok"}])")) {
            EXPECT_TRUE(list.Take({&c, 1}));
        }
        EXPECT_TRUE(list.IsComplete());
        EXPECT_THAT(list.Ids(), testing::ElementsAre("ok")) << odd;
    }
    EXPECT_TRUE(IsImageName("registry:5000/a/b:1.0@sha256:0f"));
    for (const std::string name : {"", "../containers", "a?all=1", "a b", "a\r\nX: y"}) {
        EXPECT_FALSE(IsImageName(name)) << name;
    }
    EXPECT_FALSE(ParseInspected(std::string(100000, '[')));
    const std::string longText(1000000, 'x');
    EXPECT_EQ(ParseInspected(R"({"Id":"a","Name":")" + longText + "\"}")->info.name.size(), maxTextBytes);
}

TEST(MetadataCacheTest, GoneContainersMakeRoomForNewOnes)
{
    Engine::MetadataCache cache;
    const auto put = [&](std::size_t id) {
        return cache.Put({std::to_string(id), "", "", "", {}, {}});
    };
    for (std::size_t id = 0; id < cache.maxRecords; ++id) {
        ASSERT_TRUE(put(id));
    }
    EXPECT_FALSE(put(cache.maxRecords));
    cache.MarkGone("7", 1, {});
    EXPECT_TRUE(put(cache.maxRecords));
    EXPECT_EQ(cache.Find("7"), nullptr);
}

// Each source adds what the better ones lack, unless it alone is not vouched for; and each tells of its own ends.
TEST(MetadataCacheTest, TheBestWordCountsWhateverComesFirst)
{
    using Engine::ContainerInfo;
    const std::vector<std::pair<ContainerInfo, Engine::MetadataCache::Source>> told{
        {{"a", "e", "", "docker.io/library/nginx:1", {}, {}}, {2, true, true}},
        {{"a", "b", "sha256:b", "b:1", {}, {"/b"}, {"pod", "shop", "u"}}, {0, true, false}},
        {{"a", "u", "sha256:u", "trusted", {}, {}, {}, {}, "sha256:d"}, {3, false, true}}};  // a user's engine
    for (const auto& order : {std::array{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}}) {
        Engine::MetadataCache cache;
        for (const int each : order) {
            cache.Put(told[each].first, told[each].second);
        }
        const ContainerInfo known = *cache.FindVouchedFor("a");
        EXPECT_EQ(known.name + known.imageName + known.imageId + known.imageDigest + known.pod.name +
                      known.mountDestinations.at(0),
                  "enginx:1sha256:bpod/b");
        cache.KeepOnly({}, 3, {});
        cache.KeepLiving({}, {});
        cache.Purge(Engine::MetadataCache::Clock::now());
        EXPECT_NE(cache.Find("a"), nullptr) << "it was neither of them that told";
        cache.MarkGone("a", 2, {});
        cache.Put({"a", "again", "", "", {}, {}}, told[1].second);
        EXPECT_EQ(cache.Find("a")->imageName, "") << "another has the name now";
    }
}

TEST(MetadataCacheTest, NamespacesOfContainersThatHaveGoneAreForgotten)
{
    Engine::MetadataCache cache;
    const std::size_t recorded = 2 * cache.keptNamespaces;
    for (std::size_t id = 0; id < recorded; ++id) {
        cache.RecordNamespaces(std::to_string(id), {{"mnt", "1"}});
    }
    cache.KeepLiving({"5"}, {});
    const auto hasNamespaces = [&](const std::string& id) {
        cache.Put({id, "", "", "", {}, {}});
        return !cache.Find(id)->namespaces.empty();
    };
    EXPECT_TRUE(hasNamespaces("5")) << "it lives";
    EXPECT_FALSE(hasNamespaces("6"));
    EXPECT_TRUE(hasNamespaces(std::to_string(recorded - 1)));
}

}  // namespace
