// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "host/sdk/Counters.h"
#include "host/sdk/FileDescriptor.h"
#include "host/sdk/LineChannel.h"

namespace {

Poco::Message Record(const std::string& source, const std::string& text)
{
    return {source, text, Poco::Message::PRIO_WARNING, "/src/TraceDecoder.cpp", 42};
}

TEST(LineChannelTest, WritesARecordAsOneLineWithNothingThatActsOnATerminal)
{
    Poco::Message record = Record("trace\nforged", std::string("gr\xc3\xbc\xc3\x9f \x1b[2J \0\x7f", 14) +
                                                       "\xc2\x9b \xe2\x80\xae \xc3(\xe2\x82 \r\n2026 fatal: forged");
    record.setTime(Poco::Timestamp::fromEpochTime(1'700'000'000) + 123'000);
    EXPECT_EQ(SDK::FormatRecord(record),
              "2023-11-14T22:13:20.123Z warning trace\\nforged: gr\xc3\xbc\xc3\x9f \\x1b[2J \\x00\\x7f"
              "\\u{9b} \\u{202e} \\xc3(\\xe2\\x82 \\r\\n2026 fatal: forged [TraceDecoder.cpp:42]\n");
}

TEST(LineChannelTest, NeverWaitsForAReaderAndSaysLaterHowMuchItDropped)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const SDK::FileDescriptor reader(ends[0]);
    const SDK::FileDescriptor writer(ends[1]);
    const std::uint64_t before = SDK::Counters::Get("log.lost");
    Poco::AutoPtr<SDK::LineChannel> channel(new SDK::LineChannel(writer.Get()));
    const Poco::Message record = Record("m", std::string(100'000, 'x'));  // more than the pipe holds
    for (int i = 0; i < 5; ++i) {
        channel->log(record);
    }
    EXPECT_EQ(SDK::Counters::Get("log.lost") - before, 3U) << "two have room in the queue";
    std::string bytes;
    const std::vector<std::string> wanted{SDK::FormatRecord(record), " records were lost"};
    for (std::array<char, 4096> part{}; std::any_of(wanted.begin(), wanted.end(), [&bytes](const std::string& text) {
             return bytes.find(text) == std::string::npos;
         });) {
        const ssize_t count = ::read(reader.Get(), part.data(), part.size());
        ASSERT_GT(count, 0);
        bytes.append(part.data(), static_cast<std::size_t>(count));
    }
}

}  // namespace
