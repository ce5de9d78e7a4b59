// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineDocuments.h"

#include <gmock/gmock.h>

#include <string>

#include "tests/host/container/FakeProc.h"

namespace {

using namespace Engine::EngineDocuments;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(EngineDocumentsTest, ReadsWhatAnEngineSays)
{
    const auto inspected = ParseInspected(R"({"Id":")" + idA + R"(","Name":"/web","Image":"sha256:eb","RestartCount":0,
        "State":{"Status":"running","Pid":6992},"Config":{"Image":"bb:1","Labels":{"a":"b"}},
        "Mounts":[{"Type":"bind","Source":"/srv","Destination":"/data"},{"Destination":7},{"Destination":"/etc/x"}]})");
    ASSERT_TRUE(inspected);
    EXPECT_EQ(inspected->info.id, idA);
    EXPECT_EQ(inspected->info.name, "web");
    EXPECT_EQ(inspected->info.imageId, "sha256:eb");
    EXPECT_EQ(inspected->info.imageName, "bb:1");
    EXPECT_EQ(inspected->pid, 6992);
    EXPECT_THAT(inspected->info.mountDestinations, ElementsAre("/data", "/etc/x"));

    const auto event = ParseEvent(R"({"status":"create","id":")" + idA + R"(","from":"bb:1","Type":"container",
        "Action":"create","Actor":{"ID":")" +
                                  idA + R"(","Attributes":{"image":"bb:1","name":"web"}},"time":17})");
    ASSERT_TRUE(event);
    EXPECT_EQ(event->action, "create");
    EXPECT_EQ(event->info.id, idA);
    EXPECT_EQ(event->info.imageName, "bb:1");
}

// The text with every '@' replaced.
std::string Filled(std::string_view text, const std::string& value)
{
    std::string filled;
    for (const char c : text) {
        filled += c == '@' ? value : std::string(1, c);
    }
    return filled;
}

// Members as every other type of JSON: no exception, and what is odd is absent.
TEST(EngineDocumentsTest, OddTypesCountAsAbsent)
{
    for (const std::string odd : {"null", "7", "-1", "1e300", "true", "\"/x\"", "[]", "[1,[2]]", "{}", "{\"a\":{}}"}) {
        const auto inspected =
            ParseInspected(Filled(R"({"Id":"x","Name":@,"Image":@,"Config":@,"State":@,"Mounts":@})", odd));
        ASSERT_TRUE(inspected) << odd;
        EXPECT_EQ(inspected->pid, 0);
        EXPECT_THAT(inspected->info.mountDestinations, IsEmpty());
        EXPECT_TRUE(ParseInspected(Filled(R"({"Id":"x","State":{"Pid":@},"Config":{"Image":@}})", odd))) << odd;
        EXPECT_FALSE(ParseInspected(Filled(R"({"Id":@})", odd))) << odd;
        EXPECT_FALSE(ParseEvent(Filled(R"({"Type":"container","Action":"start","Actor":@})", odd))) << odd;
        EXPECT_FALSE(ParseEvent(odd)) << odd;
        EXPECT_EQ(ParseList(odd).has_value(), odd.front() == '[') << odd;
        EXPECT_THAT(*ParseList(Filled(R"([@,{"Id":@},{"Id":"ok"}])", odd)), ElementsAre("ok")) << odd;
    }
    EXPECT_FALSE(ParseInspected(std::string(100000, '[')));
    EXPECT_FALSE(ParseList(""));
}

TEST(EngineDocumentsTest, OnlyPlainIdsGetIntoARequest)
{
    for (const std::string& id : {idA, std::string{"my_container-1.x"}}) {
        EXPECT_TRUE(IsContainerId(id)) << id;
    }
    for (const std::string& id :
         {std::string{}, std::string{".."}, std::string{"a/../json"}, std::string{"a b"}, std::string{"a\r\nX: y"},
          std::string{"a?x"}, std::string{"-a"}, std::string(129, 'a'), std::string("a\0b", 3)}) {
        EXPECT_FALSE(IsContainerId(id)) << id;
    }
}

TEST(EngineDocumentsTest, LongTextsAreCut)
{
    const std::string longText(1000000, 'x');
    const auto inspected = ParseInspected(R"({"Id":"a","Name":")" + longText + "\"}");
    ASSERT_TRUE(inspected);
    EXPECT_EQ(inspected->info.name.size(), maxTextBytes);
}

}  // namespace
