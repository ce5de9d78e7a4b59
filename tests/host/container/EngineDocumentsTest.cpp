// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineDocuments.h"

#include <gmock/gmock.h>

#include <string>

namespace {

using namespace Engine::EngineDocuments;
using testing::ElementsAre;
using testing::IsEmpty;

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
    for (const std::string odd : {"null", "-1", "1e300", "\"/x\"", "[1,[2]]", "{\"a\":{}}"}) {
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
    EXPECT_TRUE(IsImageName("registry:5000/a/b:1.0@sha256:0f"));
    for (const std::string name : {"", "../containers", "a?all=1", "a b", "a\r\nX: y"}) {
        EXPECT_FALSE(IsImageName(name)) << name;
    }
    EXPECT_FALSE(ParseInspected(std::string(100000, '[')));
    const std::string longText(1000000, 'x');
    EXPECT_EQ(ParseInspected(R"({"Id":"a","Name":")" + longText + "\"}")->info.name.size(), maxTextBytes);
}

}  // namespace
