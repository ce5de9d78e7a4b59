// SPDX-License-Identifier: Apache-2.0
#include "host/report/LineStream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <future>

#include "host/report/SmallPipe.h"
#include "support/TemporaryDirectory.h"

namespace {

using Engine::LineStream;
using Engine::WritePatience;
using namespace std::chrono_literals;

class LineStreamTest : public testing::Test {
protected:
    LineStream Onto(int fd)
    {
        std::error_code error;
        LineStream stream = LineStream::Duplicate(fd, error);
        EXPECT_FALSE(error) << error.message();
        return stream;
    }

    SmallPipe pipe;
    WritePatience patience;
    const std::string longLine = std::string(100000, 'x') + "\n";
};

TEST_F(LineStreamTest, ALineLargerThanThePipeArrivesWholeAtASlowReader)
{
    auto read = std::async(std::launch::async, [this] { return pipe.Read(longLine.size()); });
    EXPECT_FALSE(Onto(pipe.writer.Get()).Write(longLine, patience));
    EXPECT_EQ(read.get(), longLine);
    EXPECT_EQ(::fcntl(pipe.writer.Get(), F_GETFL) & O_NONBLOCK, 0) << "it belongs to others, too";
}

// Both kinds of descriptor: one that could be made non-blocking and one that could not.
TEST_F(LineStreamTest, ABlockedReaderHoldsTheWriterOnlyAsLongAsThePatience)
{
    LineStream duplicate = Onto(pipe.writer.Get());
    LineStream blocking{SDK::FileDescriptor(::fcntl(pipe.writer.Get(), F_DUPFD_CLOEXEC, 3))};
    for (LineStream* stream : {&duplicate, &blocking}) {
        WritePatience ending;
        auto write = std::async(std::launch::async, [&] { return stream->Write(longLine, ending); });
        EXPECT_EQ(write.wait_for(50ms), std::future_status::timeout);  // it waits for as long as it may
        ending.End(10ms);
        EXPECT_EQ(write.get(), std::errc::timed_out);
    }
}

TEST_F(LineStreamTest, TheLineAfterOneThatWasCutOffStartsAnew)
{
    LineStream stream = Onto(pipe.writer.Get());
    WritePatience over;
    over.End(0ms);
    ASSERT_EQ(stream.Write(longLine, over), std::errc::timed_out);
    const std::string cut = pipe.Read(static_cast<std::size_t>(pipe.room));
    EXPECT_FALSE(stream.Write("{}\n", patience));
    EXPECT_FALSE(stream.Write("{}\n", patience));
    EXPECT_EQ(pipe.Read(7), "\n{}\n{}\n");
}

TEST_F(LineStreamTest, ASocketIsWrittenWithoutBlockingIt)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const SDK::FileDescriptor near(ends[0]);
    const SDK::FileDescriptor far(ends[1]);
    LineStream stream = Onto(near.Get());
    WritePatience over;
    over.End(0ms);
    EXPECT_EQ(stream.Write(std::string(10'000'000, 'x'), over), std::errc::timed_out);
}

TEST_F(LineStreamTest, AFileIsAppendedToAndAFullDiskIsAnError)
{
    const TemporaryDirectory directory;
    const std::string path = directory.Write("alarms", "before\n");
    std::error_code error;
    EXPECT_FALSE(LineStream::Append(path.c_str(), error).Write("{}\n", patience));
    EXPECT_EQ(directory.Read("alarms"), "before\n{}\n");
    EXPECT_EQ(LineStream::Append("/dev/full", error).Write("{}\n", patience), std::errc::no_space_on_device);
}

}  // namespace
