// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/TracefsCalls.h"
#include "tests/support/MustRun.h"

namespace Engine {
namespace {

constexpr std::size_t bufferKb = 64;

std::string Directory(const std::string& name)
{
    return std::string{CeTracefsDirectory()} + "/instances/" + name;
}
bool Exists(const std::string& name)
{
    return std::filesystem::exists(Directory(name));
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

TEST_F(TracefsInstanceTest, LeavesNothingBehindWhenItsSettingsAreRefused)
{
    constexpr std::size_t moreThanThereIs = std::size_t{1} << 40;
    EXPECT_THROW((TracefsInstance{name, moreThanThereIs}), std::system_error);
    EXPECT_FALSE(Exists(name));
}

TEST_F(TracefsInstanceTest, OfADeadOwnerStopsRecordingAndIsRemovedWithoutThoseOfOthers)
{
    const std::string strange = std::string{TracefsInstance::namePrefix} + "1x";
    const TracefsInstance own{name, bufferKb};
    const TracefsInstance other{strange, bufferKb};
    const pid_t child = ::fork();
    if (child == 0) {  // ends as if killed: nothing is cleaned up
        (new TracefsInstance{TracefsInstance::OwnName(), bufferKb})->SetEvent("sched", "sched_process_exit", true);
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    const std::string left = TracefsInstance::namePrefix + std::to_string(child);
    ASSERT_TRUE(Exists(left));
    std::string recording;
    std::getline(std::ifstream{Directory(left) + "/tracing_on"}, recording);
    EXPECT_EQ(recording, "0");

    EXPECT_GE(TracefsInstance::RemoveLeftovers(), 1U);
    EXPECT_FALSE(Exists(left));
    EXPECT_TRUE(Exists(name));
    EXPECT_TRUE(Exists(strange));
}

TEST_F(TracefsInstanceTest, EveryEventThatWasWrittenIsReadOrCountedAsLostAndNoneOfTheReaderIs)
{
    constexpr std::uint64_t written = 20'000;
    for (const bool leaveOut : {false, true}) {
        LiveTrace trace{name, bufferKb};
        if (leaveOut) {
            trace.ExcludeThread(::gettid());
        }
        ASSERT_EQ(trace.Record(*trace.Catalog()->Find("syscalls", "sys_enter_sched_get_priority_min")), 0);
        for (std::uint64_t i = 0; i < written; ++i) {  // a call that nothing else on the system makes meanwhile
            ::syscall(SYS_sched_get_priority_min, 0);
        }
        CountingSink sink;
        trace.StopAll();
        trace.Merger().Drain(sink);
        const KernelLoss loss = trace.TakeLoss();
        EXPECT_EQ(sink.count + loss.overrun + loss.dropped, leaveOut ? 0 : written);
        EXPECT_EQ(loss.overrun > 0, !leaveOut);
        EXPECT_EQ(sink.marks > 0, !leaveOut) << "the place of the loss must be known";
        EXPECT_EQ(trace.TakeLoss().overrun, 0U) << "counted once only";
    }
}

}  // namespace
}  // namespace Engine
