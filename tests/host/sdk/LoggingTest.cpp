// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>

#include "host/sdk/Counters.h"
#include "host/sdk/FileDescriptor.h"
#include "host/sdk/LineChannel.h"
#include "host/sdk/SafeText.h"
#include "sdk/LoggerUtils.h"

namespace {

using SDK::FileDescriptor;
using SDK::LineChannel;
using SDK::LoggerUtils;
using testing::EndsWith;
using testing::StartsWith;

Poco::Message Record(const std::string& source, const std::string& text)
{
    return {source, text, Poco::Message::PRIO_WARNING, "/src/TraceDecoder.cpp", 42};
}

TEST(SafeTextTest, LeavesNothingThatActsOnALineOrATerminal)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"plain \\n text", "plain \\n text"},
        {"a\r\n\tb", "a\\r\\n\\tb"},
        {"\x1b[2J\x07\x7f", "\\x1b[2J\\x07\\x7f"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\xc2\x9b"
         "31m",
         "\\u{9b}31m"},  // CSI as one code point
        {"\xe2\x80\xae"
         "exe\xe2\x80\xa8",
         "\\u{202e}exe\\u{2028}"},
        {"gr\xc3\xbc\xc3\x9f \xe6\x97\xa5 \xf0\x9f\x90\xb3", "gr\xc3\xbc\xc3\x9f \xe6\x97\xa5 \xf0\x9f\x90\xb3"},
        {"\xc3(\xff", "\\xc3(\\xff"},
        {"\xe2\x82", "\\xe2\\x82"},
    };
    for (const auto& [text, expected] : rows) {
        std::string out;
        SDK::SafeText::AppendEscaped(out, text);
        EXPECT_EQ(out, expected);
    }
}

TEST(LineChannelTest, WritesARecordAsOneLine)
{
    Poco::Message record = Record("trace\nforged", "comm=x\n2026-01-01T00:00:00.000Z fatal forged: line");
    record.setTime(Poco::Timestamp::fromEpochTime(1'700'000'000) + 123'000);
    EXPECT_EQ(SDK::FormatRecord(record),
              "2023-11-14T22:13:20.123Z warning trace\\nforged: comm=x\\n2026-01-01T00:00:00.000Z fatal forged: line "
              "[TraceDecoder.cpp:42]\n");
    EXPECT_THAT(SDK::FormatRecord({"", "text", Poco::Message::PRIO_TRACE}), EndsWith(" trace root: text\n"));
}

TEST(LineChannelTest, NeverWaitsForAReaderAndCountsWhatItDropped)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    const FileDescriptor reader(ends[0]);
    const FileDescriptor writer(ends[1]);
    Poco::AutoPtr<LineChannel> channel(new LineChannel(writer.Get()));
    const SDK::Counters::Counter& lost = SDK::Counters::Get(SDK::CounterName::logLost);
    const std::uint64_t before = lost;
    channel->log(Record("m", std::string(1'000'000, 'x')));  // more than the pipe holds: cut
    channel->log(Record("m", "dropped"));
    EXPECT_EQ(lost - before, 2U);

    std::string bytes(2'000'000, '\0');
    ASSERT_GT(::read(reader.Get(), bytes.data(), bytes.size()), 0);
    channel->log(Record("m", "after"));
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(reader.Get(), bytes.data(), bytes.size()))));
    EXPECT_THAT(bytes, StartsWith("\n"));  // ends the line that was cut
    EXPECT_THAT(bytes, EndsWith("m: after [TraceDecoder.cpp:42]\n"));
}

TEST(LoggerUtilsTest, OneLevelForAllButThoseWithTheirOwn)
{
    LoggerUtils* const loggers = LoggerUtils::GetInstance();
    Poco::Logger* const root = loggers->GetRootLogger();
    EXPECT_TRUE(loggers->SetLevel("error"));
    Poco::Logger* const shared = loggers->GetModuleLogger("shared", false);
    Poco::Logger* const own = loggers->GetModuleLogger("own", true);
    EXPECT_EQ(loggers->GetModuleLogger("shared", false), shared);
    EXPECT_FALSE(own->warning());

    EXPECT_TRUE(loggers->SetLevel("trace"));
    EXPECT_TRUE(root->trace() && shared->trace());
    EXPECT_FALSE(own->warning());
    for (const char* level : {"", "loud", "Error", "8"}) {
        EXPECT_FALSE(loggers->SetLevel(level)) << level;
    }
    EXPECT_TRUE(shared->trace());
    EXPECT_TRUE(loggers->SetLevel("none"));
    EXPECT_FALSE(root->fatal() || shared->fatal());
    EXPECT_TRUE(loggers->SetLevel("information"));
}

TEST(LoggerUtilsTest, HandedOutLoggersOutliveTheLibrarysShutdown)
{
    Poco::Logger* const module = LoggerUtils::GetInstance()->GetModuleLogger("kept", false);
    Poco::Logger::shutdown();  // as the application object does when it ends
    EXPECT_EQ(module->name(), "kept");
    EXPECT_EQ(LoggerUtils::GetInstance()->GetModuleLogger("kept", false), module);
    EXPECT_FALSE(module->getChannel().isNull());
}

}  // namespace
