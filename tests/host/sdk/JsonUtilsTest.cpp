// SPDX-License-Identifier: Apache-2.0
#include "sdk/JsonUtils.h"

#include <gmock/gmock.h>
#include <json/value.h>

namespace {

using SDK::JsonUtils;

TEST(JsonUtilsTest, TellsWhereADocumentIsWrong)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"{\"a\":\n  [1,,2]}", "line 2, column 6: "},
        {"{\"a\":1,\"a\":2}", "line 1, column 8: "},
        {"[1] // why", "line 1, column 5: "},
        {"\xff\xfe", "line 1, column 1: "},
        {"", "line 1, column 1: "},
        {std::string(101, '[') + "1" + std::string(101, ']'), "100"},
        {std::string(1'000'000, '['), "100"},  // no recursion to the end of the stack
    };
    for (const auto& [text, place] : rows) {
        Json::Value root = "before";
        std::string error;
        EXPECT_EQ(JsonUtils::ParseJsonStr(text.data(), text.size(), root, error), -1) << text.substr(0, 100);
        EXPECT_TRUE(root.isNull());
        EXPECT_THAT(error, testing::HasSubstr(place));
    }
}

TEST(JsonUtilsTest, WritesOneLineOfPlainAsciiWhateverTheTextsHold)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"a\n\t\"\\/\x1b\x7f", R"("a\n\t\"\\/\u001b\u007f")"},
        {std::string("z\0e", 3), R"("z\u0000e")"},
        {"\xc3\xa9\xf0\x9f\x98\x80", R"("\u00e9\ud83d\ude00")"},
        {"\xc3/etc", R"("\ufffd/etc")"},              // a lead byte that would swallow the slash
        {"\xe2\x82", R"("\ufffd\ufffd")"},            // cut short
        {"\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},  // a surrogate
        {"\xc0\xaf", R"("\ufffd\ufffd")"},            // overlong slash
    };
    for (const auto& [text, written] : rows) {
        EXPECT_EQ(JsonUtils::JsonToString(text), written);
    }
    Json::Value nested;
    nested["k\xff"]["list"].append("\xfe");
    EXPECT_EQ(JsonUtils::JsonToString(nested), R"({"k\ufffd":{"list":["\ufffd"]}})");
}

}  // namespace
