// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineDocuments.h"

#include <gmock/gmock.h>

#include <regex>

namespace {

using namespace Engine::EngineDocuments;

// Members as every other type of JSON: no exception, and what is odd is absent.
TEST(EngineDocumentsTest, OddTypesCountAsAbsent)
{
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
        EXPECT_EQ(ParseList(odd).has_value(), odd.front() == '[') << odd;
        EXPECT_THAT(*ParseList(with(R"([@,{"Id":@},{"Id":"ok"}])")), testing::ElementsAre("ok")) << odd;
    }
    EXPECT_TRUE(IsImageName("registry:5000/a/b:1.0@sha256:0f"));
    for (const std::string name : {"", "../containers", "a?all=1", "a b", "a\r\nX: y"}) {
        EXPECT_FALSE(IsImageName(name)) << name;
    }
    EXPECT_FALSE(ParseInspected(std::string(100000, '[')));
    const std::string longText(1000000, 'x');
    EXPECT_EQ(ParseInspected(R"({"Id":"a","Name":")" + longText + "\"}")->info.name.size(), maxTextBytes);
}

}  // namespace
