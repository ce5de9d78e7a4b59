// SPDX-License-Identifier: Apache-2.0
// The trace instance and the BPF program on the real kernel.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/SyscallProbeLayout.h"
#include "host/ftrace/TracefsCalls.h"
#include "host/sdk/FileDescriptor.h"
#include "tests/support/MustRun.h"

namespace Engine {
namespace {

namespace fs = std::filesystem;

constexpr int callNumber = SYS_sched_get_priority_max;  // a call that nothing else on the system makes meanwhile
constexpr int callNumber32 = 159;                       // the same in arch/x86/entry/syscalls/syscall_32.tbl
constexpr unsigned int noLimit = 1U << 31U;
constexpr std::size_t bufferKb = 64;

void MakeCalls(int count)
{
    for (int i = 0; i < count; ++i) {
        ::syscall(callNumber, i);
    }
}

void MakeCall32(int argument)
{
    long result = callNumber32;
    asm volatile("int $0x80" : "+a"(result) : "b"(argument) : "memory", "r8", "r9", "r10", "r11");
}

// Runs `deed` in a child process, in a control group of its own if one is given, and waits for its end.
pid_t InChild(const std::function<void()>& deed, const fs::path& group = {})
{
    const SDK::FileDescriptor directory{group.empty() ? -1 : ::open(group.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    clone_args arguments{};
    arguments.flags = directory ? CLONE_INTO_CGROUP : 0;
    arguments.exit_signal = SIGCHLD;
    arguments.cgroup = directory ? static_cast<std::uint64_t>(directory.Get()) : 0;
    const auto child = static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
    EXPECT_GE(child, 0) << std::strerror(errno);
    if (child == 0) {
        deed();
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    return child;
}

fs::path InstanceDirectory(const std::string& name)
{
    return std::string{CeTracefsDirectory()} + "/instances/" + name;
}

class TraceKernelTest : public testing::Test, protected RecordSink {
protected:
    void SetUp() override { CE_REQUIRE(::geteuid() == 0 && CeTracefsDirectory() != nullptr, "needs root and tracefs"); }

    void StartProbe(std::size_t ringKb, const SyscallProbe::Budgets& budgets)
    {
        auto made = std::make_unique<SyscallProbe>(ringKb, budgets);
        probe = made.get();
        Start(std::move(made));
    }
    void Start(std::unique_ptr<SyscallProbe> made = nullptr, bool excludeThis = false)
    {
        trace.reset();
        trace = std::make_unique<LiveTrace>(name, bufferKb, std::move(made));
        if (excludeThis) {
            trace->ExcludeThread(::gettid());
        }
        event = trace->Catalog()->Find("syscalls", "sys_enter_sched_get_priority_max");
        ASSERT_EQ(trace->Record(*event), 0);
    }

    void OnRecord(const RawRecord& record) override
    {
        marks += record.afterLoss ? 1 : 0;
        CeTraceEntry& entry = entries.emplace_back();
        ASSERT_LE(record.size, sizeof entry);
        std::memcpy(&entry, record.data, record.size);  // the trace keeps only the arguments that the call has
    }
    std::vector<CeTraceEntry> Read()
    {
        trace->Merger().Drain(*this);
        return std::exchange(entries, {});
    }
    void Exclude(int process) { probe->Exclude(process, probe->TicketOf(process).value_or(0)); }

    const std::string name = TracefsInstance::OwnName();
    SyscallProbe* probe = nullptr;
    std::unique_ptr<LiveTrace> trace;
    const KnownEvent* event = nullptr;
    std::vector<CeTraceEntry> entries;
    std::uint64_t marks = 0;
};

TEST_F(TraceKernelTest, CallsThroughBothEntriesAreOneEventAlsoWhenTheyGoRoundTheRing)
{
    StartProbe(4, {noLimit, noLimit, noLimit});
    constexpr std::uint64_t calls = 40;  // a ring has room for some more
    for (int time = 0; time < 20; ++time) {
        const pid_t child = InChild([] {
            MakeCalls(calls - 1);
            MakeCall32(calls - 1);
            ::syscall(callNumber32, 0);  // another call through the 64-bit entry
        });
        const std::vector<CeTraceEntry> read = Read();
        ASSERT_EQ(read.size(), calls);
        for (std::uint64_t i = 0; i < calls; ++i) {
            EXPECT_EQ(read[i].type, event->id);
            EXPECT_EQ(read[i].number, callNumber);
            EXPECT_EQ(read[i].thread, child);
            EXPECT_EQ(read[i].process, child);
            EXPECT_EQ(read[i].arguments[0], i);
        }
    }
    ASSERT_EQ(trace->Stop(*event), 0);
    MakeCalls(1);
    EXPECT_TRUE(Read().empty());
}

TEST_F(TraceKernelTest, TheHostIsExcludedWithItsChildrenUntilOneIsMoved)
{
    StartProbe(64, {});
    const auto ticket = probe->TicketOf(::getpid());
    ASSERT_TRUE(ticket);
    const fs::path root = fs::exists("/sys/fs/cgroup/unified") ? "/sys/fs/cgroup/unified" : "/sys/fs/cgroup";
    const fs::path group = root / ("probe-test-" + std::to_string(::getpid()));
    fs::create_directory(group);
    const auto join = [](const fs::path& where) {
        std::ofstream{where / "cgroup.procs"} << 0;
    };
    join(group);
    probe->Exclude(::getpid(), *ticket);
    MakeCalls(1);
    EXPECT_EQ(Read().size(), 1U) << "it was moved between the ticket and its use";

    Exclude(::getpid());
    MakeCalls(1);
    InChild([] { MakeCalls(1); });
    EXPECT_TRUE(Read().empty());
    EXPECT_FALSE(probe->TicketOf(::getpid()));

    const pid_t moved = InChild([&] {
        join(root);
        InChild([] { MakeCalls(1); });
    });
    EXPECT_EQ(Read().size(), 1U) << "what a moved process forks is recorded, too";

    const pid_t made = InChild([] { MakeCalls(1); }, root);
    EXPECT_EQ(Read().size(), 1U) << "made in another group at once";
    struct stat status = {};
    ::stat(root.c_str(), &status);
    EXPECT_EQ(probe->TakeInitialCgroup(made), status.st_ino) << "a control group's id is its inode's number";
    EXPECT_FALSE(probe->TakeInitialCgroup(made)) << "taken";
    EXPECT_FALSE(probe->TakeInitialCgroup(moved)) << "made in its parent's group";
    join(root);
    fs::remove(group);
}

TEST_F(TraceKernelTest, EveryCallThatTheProbeDoesNotRecordIsCounted)
{
    constexpr int calls = 50000;
    struct Case {
        std::size_t ringKb;
        SyscallProbe::Budgets budgets;
        bool drops;
    };
    for (const Case& each : {Case{4, {noLimit, noLimit, noLimit}, true}, Case{8192, {1, 100, noLimit}, false},
                             Case{8192, {1, noLimit, 100}, false}}) {
        StartProbe(each.ringKb, each.budgets);
        InChild([] { MakeCalls(calls); });
        const std::size_t read = Read().size();
        const SyscallLoss loss = trace->TakeSyscallLoss();
        EXPECT_EQ(read + loss.dropped + loss.shed, calls);
        EXPECT_GT(read, 0U);
        EXPECT_EQ(loss.dropped != 0, each.drops);
        EXPECT_EQ(loss.shed != 0, !each.drops);
        EXPECT_EQ(trace->TakeSyscallLoss().shed, 0U) << "counted once only";
    }
}

TEST_F(TraceKernelTest, EveryEventOfTheTraceIsReadOrCountedAsLostAndNoneOfTheReaderIs)
{
    constexpr std::uint64_t written = 20'000;
    for (const bool excluded : {false, true}) {
        Start(nullptr, excluded);
        MakeCalls(written);
        trace->StopAll();
        const std::size_t read = Read().size();
        const KernelLoss loss = trace->TakeLoss();
        EXPECT_EQ(read + loss.overrun + loss.dropped, excluded ? 0 : written);
        EXPECT_EQ(loss.overrun > 0, !excluded);
        EXPECT_EQ(std::exchange(marks, 0) > 0, !excluded) << "the place of the loss must be known";
        EXPECT_EQ(trace->TakeLoss().overrun, 0U) << "counted once only";
    }
}

TEST_F(TraceKernelTest, NothingStaysOfRefusedSettingsAndDeadOwnersAndNothingGoesOfOthers)
{
    EXPECT_THROW((TracefsInstance{name, std::size_t{1} << 40}), std::system_error) << "more than there is";
    EXPECT_FALSE(fs::exists(InstanceDirectory(name)));

    const std::string strange = std::string{TracefsInstance::namePrefix} + "1x";
    const TracefsInstance own{name, bufferKb};
    const TracefsInstance other{strange, bufferKb};
    const pid_t child = InChild([] {  // ends as if killed: nothing is cleaned up
        (new TracefsInstance{TracefsInstance::namePrefix + std::to_string(::getpid()), bufferKb})
            ->SetEvent("sched", "sched_process_exit", true);
    });
    const std::string left = TracefsInstance::namePrefix + std::to_string(child);
    ASSERT_TRUE(fs::exists(InstanceDirectory(left)));
    std::string recording;
    std::getline(std::ifstream{InstanceDirectory(left) / "tracing_on"}, recording);
    EXPECT_EQ(recording, "0");

    EXPECT_GE(TracefsInstance::RemoveLeftovers(), 1U);
    EXPECT_FALSE(fs::exists(InstanceDirectory(left)));
    EXPECT_TRUE(fs::exists(InstanceDirectory(name)));
    EXPECT_TRUE(fs::exists(InstanceDirectory(strange)));
}

}  // namespace
}  // namespace Engine
