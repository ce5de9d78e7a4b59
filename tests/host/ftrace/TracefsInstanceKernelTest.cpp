// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "host/ftrace/EventDelivery.h"
#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/TracefsCalls.h"
#include "tests/support/MustRun.h"

namespace Engine {
namespace {

constexpr std::size_t bufferKb = 64;

bool Exists(const std::string& name)
{
    return std::filesystem::exists(std::string{CeTracefsDirectory()} + "/instances/" + name);
}

class CountingSink final : public RecordSink {
public:
    void OnRecord(const RawRecord& record) override
    {
        ++count;
        marks += record.afterLoss ? 1 : 0;
    }
    std::uint64_t count = 0;
    std::uint64_t marks = 0;
};

class TracefsInstanceTest : public testing::Test {
protected:
    void SetUp() override { CE_REQUIRE(::geteuid() == 0 && CeTracefsDirectory() != nullptr, "needs root and tracefs"); }

    const std::string name = TracefsInstance::OwnName();
};

TEST_F(TracefsInstanceTest, IsThereUntilItsOwnerGoes)
{
    {
        const TracefsInstance instance{name, bufferKb};
        EXPECT_TRUE(Exists(name));
        EXPECT_THROW((TracefsInstance{name, bufferKb}), std::system_error);
    }
    EXPECT_FALSE(Exists(name));
}

TEST_F(TracefsInstanceTest, LeavesNothingBehindWhenItsSettingsAreRefused)
{
    constexpr std::size_t moreThanThereIs = std::size_t{1} << 40;
    EXPECT_THROW((TracefsInstance{name, moreThanThereIs}), std::system_error);
    EXPECT_FALSE(Exists(name));
}

// A child makes an instance, starts an event and is killed.
pid_t KilledOwner()
{
    std::array<int, 2> ready{};
    EXPECT_EQ(::pipe2(ready.data(), O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const TracefsInstance instance{TracefsInstance::OwnName(), bufferKb};
        instance.SetEvent("sched", "sched_process_exit", true);
        ::close(ready[1]);
        for (;;) {
            ::pause();
        }
    }
    ::close(ready[1]);
    char nothing = 0;
    EXPECT_EQ(::read(ready[0], &nothing, 1), 0);  // the end: the child has closed its side
    ::close(ready[0]);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    return child;
}

TEST_F(TracefsInstanceTest, OfAKilledOwnerStopsRecordingAndIsRemovedLater)
{
    const std::string left = TracefsInstance::namePrefix + std::to_string(KilledOwner());
    ASSERT_TRUE(Exists(left));
    std::string recording;
    std::getline(std::ifstream{std::string{CeTracefsDirectory()} + "/instances/" + left + "/tracing_on"}, recording);
    EXPECT_EQ(recording, "0");

    EXPECT_GE(TracefsInstance::RemoveLeftovers(), 1U);
    EXPECT_FALSE(Exists(left));
}

TEST_F(TracefsInstanceTest, OfALiveAgentOrOfAnotherNameIsNoLeftover)
{
    const std::string strange = std::string{TracefsInstance::namePrefix} + "1x";
    const TracefsInstance own{name, bufferKb};
    const TracefsInstance other{strange, bufferKb};
    TracefsInstance::RemoveLeftovers();
    EXPECT_TRUE(Exists(name));
    EXPECT_TRUE(Exists(strange));
}

// A call that nothing else on the system makes meanwhile.
void CallTimes(std::uint64_t times)
{
    for (std::uint64_t i = 0; i < times; ++i) {
        ::syscall(SYS_sched_get_priority_min, 0);
    }
}

TEST_F(TracefsInstanceTest, EveryEventThatWasWrittenIsReadOrCountedAsLost)
{
    constexpr std::uint64_t written = 20'000;
    LiveTrace trace{name, bufferKb};
    const KnownEvent* event = trace.Catalog()->Find("syscalls", "sys_enter_sched_get_priority_min");
    ASSERT_NE(event, nullptr);
    ASSERT_EQ(trace.Record(*event), 0);

    CallTimes(written);

    CountingSink sink;
    trace.StopAll();
    trace.Merger().Drain(sink);
    const KernelLoss loss = trace.TakeLoss();
    EXPECT_GT(sink.count, 0U);
    EXPECT_GT(loss.overrun, 0U);
    EXPECT_GE(sink.marks, 1U) << "the place of the loss must be known";
    EXPECT_EQ(sink.count + loss.overrun + loss.dropped, written);
    EXPECT_EQ(trace.TakeLoss().overrun, 0U) << "counted once only";
}

TEST_F(TracefsInstanceTest, LeavesOutTheSystemCallsOfTheReader)
{
    LiveTrace trace{name, bufferKb};
    trace.LeaveOutThread(::gettid());
    ASSERT_EQ(trace.Record(*trace.Catalog()->Find("syscalls", "sys_enter_sched_get_priority_min")), 0);

    CallTimes(10);

    CountingSink sink;
    trace.StopAll();
    trace.Merger().Drain(sink);
    EXPECT_EQ(sink.count, 0U);
}

}  // namespace
}  // namespace Engine
