// SPDX-License-Identifier: Apache-2.0
#include "sdk/JsonUtils.h"

#include <gmock/gmock.h>
#include <json/value.h>

namespace {

using SDK::JsonUtils;

TEST(JsonUtilsTest, TellsWhereADocumentIsWrong)
{
    const std::pair<std::string, std::string> rows[] = {
        {"{\"a\":\n  [1,]}", "line 2, column 6: "},
        {"{\"a\":1,\"a\":2}", "line 1, column 8: "},
        {"[1] // why", "line 1, column 5: "},
        {"", "line 1, column 1: "},
        {std::string(1'000'000, '['), "100"}};  // no recursion to the end of the stack
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
    Json::Value value;
    // In the end: a lead byte that would swallow the slash, a sequence cut short, a surrogate, an overlong slash.
    value["k\xff"].append("a\n\t\"\\\x1b\x7f \xc3\xa9\xf0\x9f\x98\x80 \xc3/etc \xe2\x82 \xed\xa0\x80 \xc0\xaf");
    EXPECT_EQ(JsonUtils::JsonToString(value), R"({"k\ufffd":["a\n\t\"\\\u001b\u007f \u00e9\ud83d\ude00 )"
                                              R"(\ufffd/etc \ufffd\ufffd \ufffd\ufffd\ufffd \ufffd\ufffd"]})");
}

}  // namespace
