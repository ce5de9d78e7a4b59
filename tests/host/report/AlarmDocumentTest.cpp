// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmDocument.h"

#include <gmock/gmock.h>
#include <json/value.h>

#include "host/sdk/Counters.h"
#include "sdk/JsonUtils.h"

namespace {

using Engine::AlarmDocument;

std::uint64_t Counter(const char* name)
{
    return SDK::Counters::Get(name).load();
}

Json::Value Parse(const std::string& text)
{
    Json::Value root;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root), 0) << text;
    return root;
}

TEST(AlarmDocumentTest, HostileTextStaysOnePrintableLine)
{
    for (const std::string& text : {
             std::string("{\n  \"process_name\": \"sh\"\n}\n"),
             std::string("{\"process_name\": \"a\nb\"}"),             // a raw newline inside a text
             std::string("{\"process_name\": \"\x1b[2J\x07\x7f\"}"),  // clears the terminal
             std::string("{\"process_name\": \"caf\xc3\xa9 \xe2\x80\xae\"}"),
             std::string("{\"process_name\": \"\xff\xfe\"}"),
             std::string("{\"process_name\":\"\\u001b\\n\"}"),
         }) {
        const auto document = AlarmDocument::Make(text, 1);
        ASSERT_NE(document, nullptr) << text;
        std::string line = document->Line();
        ASSERT_FALSE(line.empty());
        EXPECT_EQ(line.back(), '\n');
        line.pop_back();
        EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; })) << line;
        EXPECT_TRUE(Parse(line).isMember("process_name")) << line;
    }
}

TEST(AlarmDocumentTest, PlainTextGoesOutByteForByte)
{
    EXPECT_EQ(AlarmDocument::Make(R"({"b": 1, "a":"\\x"})", 1)->Line(), "{\"b\": 1, \"a\":\"\\\\x\"}\n");
}

TEST(AlarmDocumentTest, WhatIsNoJsonObjectIsDroppedAndCounted)
{
    const std::uint64_t before = Counter(SDK::CounterName::alarmsLost);
    const std::vector<std::string> texts{"", "{", "[1]", "\"alarm\"", "{\"a\":1} {\"b\":2}", std::string(100000, '[')};
    for (const std::string& text : texts) {
        EXPECT_EQ(AlarmDocument::Make(text, 1), nullptr) << text.substr(0, 40);
    }
    EXPECT_EQ(Counter(SDK::CounterName::alarmsLost) - before, texts.size());
}

TEST(AlarmDocumentTest, CountsOnceHoweverManySinksThereAre)
{
    const std::uint64_t sent = Counter(SDK::CounterName::alarmsSent);
    const std::uint64_t lost = Counter(SDK::CounterName::alarmsLost);
    for (const int writers : {2, 1, 0}) {
        const auto document = AlarmDocument::Make("{}", 2);
        for (int i = 0; i < writers; ++i) {
            document->MarkWritten();
        }
    }
    EXPECT_EQ(Counter(SDK::CounterName::alarmsSent) - sent, 1U);
    EXPECT_EQ(Counter(SDK::CounterName::alarmsLost) - lost, 2U);
}

}  // namespace
