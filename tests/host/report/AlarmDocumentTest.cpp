// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmDocument.h"

#include <gmock/gmock.h>

#include "host/sdk/Counters.h"

namespace {

using Engine::AlarmDocument;

std::uint64_t Counter(const char* name)
{
    return SDK::Counters::Get(name).load();
}

TEST(AlarmDocumentTest, HostileTextStaysOnePrintableLine)
{
    for (const std::string& name : {
             std::string("a\nb"),             // a raw newline inside a text
             std::string("\x1b[2J\x07\x7f"),  // clears the terminal
             std::string("caf\xc3\xa9 \xe2\x80\xae"),
             std::string("\xff\xfe"),
         }) {
        const auto document = AlarmDocument::Make("{\n\"process_name\": \"" + name + "\"}\n", 1);
        ASSERT_NE(document, nullptr) << name;
        const std::string& line = document->Line();
        EXPECT_TRUE(line.starts_with("{\"process_name\":")) << line;
        EXPECT_EQ(std::find_if(line.begin(), line.end(), [](char c) { return c < ' ' || c > '~'; }), line.end() - 1);
        EXPECT_TRUE(line.ends_with("}\n")) << line;
    }
}

TEST(AlarmDocumentTest, WhatIsNoJsonObjectIsDroppedAndCounted)
{
    const std::uint64_t before = Counter(SDK::CounterName::alarmsLost);
    const std::vector<std::string> texts{"", "[1]", "{\"a\":1} {\"b\":2}", std::string(100000, '[')};
    for (const std::string& text : texts) {
        EXPECT_EQ(AlarmDocument::Make(text, 1), nullptr);
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
