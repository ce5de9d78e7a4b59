// SPDX-License-Identifier: Apache-2.0
#include "sdk/JsonUtils.h"

#include <gmock/gmock.h>

#include <limits>

namespace {

using SDK::JsonUtils;
using testing::HasSubstr;
using testing::StartsWith;

int Parse(const std::string& text, Json::Value& root, std::string& error)
{
    return JsonUtils::ParseJsonStr(text.data(), text.size(), root, error);
}

std::string ErrorOf(const std::string& text)
{
    Json::Value root = "before";
    std::string error;
    EXPECT_EQ(Parse(text, root, error), -1) << text.substr(0, 100);
    EXPECT_TRUE(root.isNull());
    return error;
}

Json::Value Parsed(const std::string& text)
{
    Json::Value root;
    std::string error = "before";
    EXPECT_EQ(Parse(text, root, error), 0) << error;
    EXPECT_EQ(error, "");
    return root;
}

TEST(JsonUtilsTest, TellsWhereADocumentIsWrong)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"{\"a\":\n  [1,,2]}", "line 2, column 6: "},
        {"{\"a\":1} x", "line 1, column 9: "},
        {"{\"a\":1,\"a\":2}", "line 1, column 8: "},
        {"[1] // why", "line 1, column 5: "},
        {"{\"a\":1,}", "line 1, column 8: "},
        {"['a']", "line 1, column 2: "},
        {"{\"a\":1", "line 1, column "},
        {"\"text\"", "line 1, column 1: "},
        {"", "line 1, column 1: "},
        {"\xff\xfe", "line 1, column 1: "},
    };
    for (const auto& [text, place] : rows) {
        EXPECT_THAT(ErrorOf(text), StartsWith(place)) << text;
    }
}

TEST(JsonUtilsTest, RefusesADocumentThatIsNestedTooDeeply)
{
    EXPECT_THAT(ErrorOf(std::string(1'000'000, '[')), HasSubstr("100"));
    std::string objects;
    for (int i = 0; i < 100'000; ++i) {
        objects += "{\"a\":";
    }
    EXPECT_THAT(ErrorOf(objects), HasSubstr("100"));
    Parsed(std::string(100, '[') + "1" + std::string(100, ']'));
    ErrorOf(std::string(101, '[') + "1" + std::string(101, ']'));
}

TEST(JsonUtilsTest, TakesOutOnlyMembersOfTheKindThatWasAsked)
{
    Json::Value document = Parsed(R"({"list":[1],"object":{"x":1},"text":"t","none":null})");
    Json::Value out = "before";
    for (const char* key : {"object", "text", "none", "absent"}) {
        EXPECT_FALSE(JsonUtils::GetArrayValue(document, key, out)) << key;
    }
    EXPECT_FALSE(JsonUtils::GetSubobjectValue(document, "list", out));
    EXPECT_FALSE(JsonUtils::GetSubobjectValue(document["list"], "x", out));
    EXPECT_EQ(out, "before");
    EXPECT_TRUE(JsonUtils::GetArrayValue(document, "list", out));
    EXPECT_EQ(out[0], 1);
    EXPECT_TRUE(JsonUtils::GetSubobjectValue(document, "object", document));
    EXPECT_EQ(document["x"], 1);
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
        {"\xf4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},
    };
    for (const auto& [text, written] : rows) {
        EXPECT_EQ(JsonUtils::JsonToString(text), written);
    }
}

TEST(JsonUtilsTest, CleansKeysAndNestedTextsAndKeepsTheRest)
{
    Json::Value document;
    document["k\xff"]["list"].append("\xfe");
    document["n"] = -1;
    document["u"] = std::numeric_limits<Json::UInt64>::max();
    document["b"] = true;
    document["empty"] = Json::Value(Json::objectValue);
    document["none"] = Json::Value();
    const std::string text = JsonUtils::JsonToString(document);
    EXPECT_EQ(text,
              R"({"b":true,"empty":{},"k\ufffd":{"list":["\ufffd"]},"n":-1,"none":null,"u":18446744073709551615})");
    EXPECT_EQ(Parsed(text)["u"], document["u"]);
}

}  // namespace
