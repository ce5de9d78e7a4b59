// SPDX-License-Identifier: Apache-2.0
#include "host/report/AlarmDocument.h"

#include <gmock/gmock.h>

#include "host/sdk/Counters.h"

namespace {

using Engine::AlarmDocument;

TEST(AlarmDocumentTest, HostileTextStaysOnePrintableLine)
{
    const std::vector<std::string> names{
        "a\nb",                               // a raw newline inside a text
        "\x1b[2J\x07\x7f",                    // clears the terminal
        "caf\xc3\xa9 \xe2\x80\xae \xff\xfe",  // not ASCII, and not UTF-8
    };
    for (const std::string& name : names) {
        const auto document = AlarmDocument::Make("{\n\"process_name\": \"" + name + "\"}\n", 1);
        ASSERT_NE(document, nullptr) << name;
        const std::string& line = document->Line();
        EXPECT_TRUE(line.starts_with("{\"process_name\":") && line.ends_with("}\n")) << line;
        EXPECT_EQ(std::find_if(line.begin(), line.end(), [](char c) { return c < ' ' || c > '~'; }), line.end() - 1);
    }
}

TEST(AlarmDocumentTest, WhatIsNoJsonObjectIsDroppedAndCounted)
{
    const SDK::Counters::Counter& lost = SDK::Counters::Get(SDK::CounterName::alarmsLost);
    const std::uint64_t before = lost;
    const std::vector<std::string> texts{"", "[1]", "{\"a\":1} {\"b\":2}", std::string(100000, '[')};
    for (const std::string& text : texts) {
        EXPECT_EQ(AlarmDocument::Make(text, 1), nullptr);
    }
    EXPECT_EQ(lost - before, texts.size());
}

}  // namespace
