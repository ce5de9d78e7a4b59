// SPDX-License-Identifier: Apache-2.0
#include "host/report/LineStream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <future>

#include "host/report/SmallPipe.h"
#include "support/TemporaryDirectory.h"

namespace {

using Engine::LineStream;
using Engine::StopDeadline;
using namespace std::chrono_literals;

LineStream Onto(int fd)
{
    std::error_code error;
    LineStream stream = LineStream::Duplicate(fd, error);
    EXPECT_FALSE(error) << error.message();
    return stream;
}

// One that cannot be made non-blocking.
LineStream Blocking(int fd)
{
    return LineStream{SDK::FileDescriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 3))};
}

const std::string longLine = std::string(100000, 'x') + "\n";

TEST(LineStreamTest, ALineLargerThanThePipeArrivesWholeAtASlowReader)
{
    const SmallPipe pipe;
    auto read = std::async(std::launch::async, [&] { return pipe.Read(longLine.size()); });
    EXPECT_FALSE(Onto(pipe.writer.Get()).Write(longLine, StopDeadline{}));
    EXPECT_EQ(read.get(), longLine);
    EXPECT_EQ(::fcntl(pipe.writer.Get(), F_GETFL) & O_NONBLOCK, 0) << "other programs share it";
}

TEST(LineStreamTest, ABlockedReaderHoldsTheWriterUntilTheDeadlineAndTheNextLineStartsAnew)
{
    for (LineStream (*make)(int) : {Onto, Blocking}) {
        SmallPipe pipe;
        LineStream stream = make(pipe.writer.Get());
        StopDeadline ending;
        auto write = std::async(std::launch::async, [&] { return stream.Write(longLine, ending); });
        EXPECT_EQ(write.wait_for(50ms), std::future_status::timeout);
        ending.Set(10ms);
        EXPECT_EQ(write.get(), std::errc::timed_out);
        pipe.Read(static_cast<std::size_t>(pipe.room));
        EXPECT_FALSE(stream.Write("{}\n", StopDeadline{}));
        EXPECT_FALSE(stream.Write("{}\n", StopDeadline{}));
        stream = {};
        pipe.writer.Reset();
        EXPECT_EQ(pipe.Read(100), "\n{}\n{}\n");
    }
}

TEST(LineStreamTest, ASocketIsWrittenWithoutBlockingIt)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const SDK::FileDescriptor near(ends[0]);
    const SDK::FileDescriptor far(ends[1]);
    StopDeadline over;
    over.Set(0ms);
    EXPECT_EQ(Onto(near.Get()).Write(std::string(10'000'000, 'x'), over), std::errc::timed_out);
}

TEST(LineStreamTest, AFileIsAppendedToAndAFullDiskIsAnError)
{
    const TemporaryDirectory directory;
    const std::string path = directory.Write("alarms", "before\n");
    std::error_code error;
    EXPECT_FALSE(LineStream::Append(path.c_str(), error).Write("{}\n", StopDeadline{}));
    EXPECT_EQ(directory.Read("alarms"), "before\n{}\n");
    EXPECT_EQ(LineStream::Append("/dev/full", error).Write("{}\n", StopDeadline{}), std::errc::no_space_on_device);
}

}  // namespace
