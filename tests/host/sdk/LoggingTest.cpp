// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>

#include "host/sdk/Counters.h"
#include "host/sdk/FileDescriptor.h"
#include "host/sdk/LineChannel.h"
#include "host/sdk/RepeatedReport.h"
#include "sdk/LoggerUtils.h"

namespace {

using SDK::FileDescriptor;
using SDK::LoggerUtils;

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

TEST(LineChannelTest, NeverWaitsForAReaderAndCountsWhatItDropped)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    const FileDescriptor reader(ends[0]);
    const FileDescriptor writer(ends[1]);
    Poco::AutoPtr<SDK::LineChannel> channel(new SDK::LineChannel(writer.Get()));
    const SDK::Counters::Counter& lost = SDK::Counters::Get(SDK::CounterName::logLost);
    const std::uint64_t before = lost;
    channel->log(Record("m", std::string(1'000'000, 'x')));  // more than the pipe holds: cut
    channel->log(Record("m", "dropped"));
    EXPECT_EQ(lost - before, 2U);

    std::string bytes(2'000'000, '\0');
    ASSERT_GT(::read(reader.Get(), bytes.data(), bytes.size()), 0);
    channel->log(Record("m", "after"));
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(reader.Get(), bytes.data(), bytes.size()))));
    EXPECT_THAT(bytes, testing::StartsWith("\n"));  // ends the line that was cut
    EXPECT_THAT(bytes, testing::EndsWith("m: after [TraceDecoder.cpp:42]\n"));
}

TEST(LoggerUtilsTest, ALevelIsForAllButThoseWithTheirOwnAndLoggersOutliveTheLibrarysShutdown)
{
    LoggerUtils* const loggers = LoggerUtils::GetInstance();
    loggers->SetLevel("error");
    Poco::Logger* const shared = loggers->GetModuleLogger("shared", false);
    Poco::Logger* const own = loggers->GetModuleLogger("own", true);
    loggers->SetLevel("information");
    EXPECT_FALSE(loggers->SetLevel("loud"));
    EXPECT_TRUE(loggers->GetRootLogger()->information() && shared->information() && !own->warning());
    Poco::Logger::shutdown();  // as the application object does when it ends
    EXPECT_EQ(loggers->GetModuleLogger("shared", false), shared);
    EXPECT_FALSE(shared->getChannel().isNull());
}

TEST(RepeatedReportTest, ReportsTheFirstAtOnceAndLaterOnesAsOneSumAMinute)
{
    SDK::RepeatedReport report;
    const SDK::RepeatedReport::Clock::time_point now{};
    EXPECT_EQ(report.TakeDue(now), 0U);
    EXPECT_EQ(report.Occurred(now), 1U);
    report.Add(2);
    EXPECT_EQ(report.Occurred(now + SDK::RepeatedReport::pause / 2), 0U);
    EXPECT_EQ(report.TakeDue(now + SDK::RepeatedReport::pause), 3U);
    EXPECT_EQ(report.TakeDue(now + 2 * SDK::RepeatedReport::pause), 0U) << "nothing new";
}

}  // namespace
