// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/SyscallProbe.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/SyscallProbeLayout.h"
#include "host/ftrace/TracefsCalls.h"
#include "host/sdk/FileDescriptor.h"
#include "tests/support/MustRun.h"

namespace Engine {
namespace {

constexpr int callNumber = SYS_sched_get_priority_max;  // a call that nothing else on the system makes meanwhile
constexpr int callNumber32 = 159;                       // the same in arch/x86/entry/syscalls/syscall_32.tbl
constexpr unsigned int noLimit = 1U << 31U;

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

// Runs `deed` in a child process and waits for its end. Returns its pid.
pid_t InChild(const std::function<void()>& deed)
{
    const pid_t child = ::fork();
    if (child == 0) {
        deed();
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    return child;
}

// The same, in a control group of its own from the start.
pid_t InChildInGroup(const std::filesystem::path& group, const std::function<void()>& deed)
{
    const SDK::FileDescriptor directory{::open(group.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    clone_args arguments{};
    arguments.flags = CLONE_INTO_CGROUP;
    arguments.exit_signal = SIGCHLD;
    arguments.cgroup = static_cast<std::uint64_t>(directory.Get());
    const long child = ::syscall(SYS_clone3, &arguments, sizeof arguments);
    EXPECT_GE(child, 0) << std::strerror(errno);
    if (child == 0) {
        deed();
        ::_exit(0);
    }
    ::waitpid(static_cast<pid_t>(child), nullptr, 0);
    return static_cast<pid_t>(child);
}

// A control group's id is its inode's number.
std::uint64_t IdOf(const std::filesystem::path& group)
{
    struct stat status = {};
    return ::stat(group.c_str(), &status) == 0 ? status.st_ino : 0;
}

class Collector final : public RecordSink {
public:
    void OnRecord(const RawRecord& record) override
    {
        CeTraceEntry& entry = entries.emplace_back();
        ASSERT_EQ(record.size, sizeof entry);
        std::memcpy(&entry, record.data, sizeof entry);
        EXPECT_EQ(record.process, entry.process);
    }
    std::vector<CeTraceEntry> Take() { return std::exchange(entries, {}); }

private:
    std::vector<CeTraceEntry> entries;
};

class SyscallProbeTest : public testing::Test {
protected:
    void SetUp() override { CE_REQUIRE(::geteuid() == 0 && CeTracefsDirectory() != nullptr, "needs root and tracefs"); }

    void Start(std::size_t ringKb, const SyscallProbe::Budgets& budgets)
    {
        auto made = std::make_unique<SyscallProbe>(ringKb, budgets);
        probe = made.get();
        trace = std::make_unique<LiveTrace>(TracefsInstance::OwnName(), 64, std::move(made));
        event = trace->Catalog()->Find("syscalls", "sys_enter_sched_get_priority_max");
        ASSERT_EQ(trace->Record(*event), 0);
    }
    std::vector<CeTraceEntry> Read()
    {
        trace->Merger().Drain(collector);
        return collector.Take();
    }
    void Exclude(int process) { probe->Exclude(process, probe->TicketOf(process).value_or(0)); }

    SyscallProbe* probe = nullptr;
    std::unique_ptr<LiveTrace> trace;
    const KnownEvent* event = nullptr;
    Collector collector;
};

TEST_F(SyscallProbeTest, RecordsCallsThroughBothEntriesAsTheSameEvent)
{
    Start(64, {});
    const pid_t child = InChild([] {
        MakeCalls(2);
        MakeCall32(7);
        ::syscall(callNumber32, 0);  // another call through the 64-bit entry
    });
    const std::vector<CeTraceEntry> entries = Read();
    ASSERT_EQ(entries.size(), 3U);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i].type, event->id);
        EXPECT_EQ(entries[i].number, callNumber);
        EXPECT_EQ(entries[i].thread, child);
        EXPECT_EQ(entries[i].process, child);
        EXPECT_EQ(entries[i].arguments[0], i == 2 ? 7 : i);
    }
    ASSERT_EQ(trace->Stop(*event), 0);
    MakeCalls(1);
    EXPECT_TRUE(Read().empty());
}

TEST_F(SyscallProbeTest, LeavesOutTheHostWithItsChildrenUntilOneIsMoved)
{
    Start(64, {});
    const auto ticket = probe->TicketOf(::getpid());
    ASSERT_TRUE(ticket);
    const std::filesystem::path root =
        std::filesystem::exists("/sys/fs/cgroup/unified") ? "/sys/fs/cgroup/unified" : "/sys/fs/cgroup";
    const std::filesystem::path group = root / ("probe-test-" + std::to_string(::getpid()));
    std::filesystem::create_directory(group);
    const auto join = [](const std::filesystem::path& where) {
        std::ofstream{where / "cgroup.procs"} << 0;
    };
    // Moved between the ticket and its use: the ticket is void.
    join(group);
    probe->Exclude(::getpid(), *ticket);
    MakeCalls(1);
    EXPECT_EQ(Read().size(), 1U);

    Exclude(::getpid());
    MakeCalls(1);
    InChild([] { MakeCalls(1); });
    EXPECT_TRUE(Read().empty());
    EXPECT_FALSE(probe->TicketOf(::getpid()));

    const pid_t moved = InChild([&] {
        join(root);
        InChild([] { MakeCalls(1); });
    });
    const auto entries = Read();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_NE(entries[0].process, moved) << "what a moved process forks is recorded, too";

    EXPECT_EQ(Read().size(), 0U);
    const pid_t made = InChildInGroup(root, [] { MakeCalls(1); });
    EXPECT_EQ(Read().size(), 1U) << "made in another group at once";
    EXPECT_EQ(probe->TakeInitialCgroup(made), IdOf(root));
    EXPECT_FALSE(probe->TakeInitialCgroup(made)) << "taken";
    EXPECT_FALSE(probe->TakeInitialCgroup(moved)) << "made in its parent's group";
    join(root);
    std::filesystem::remove(group);
}

TEST_F(SyscallProbeTest, ReadsRecordsThatGoRoundTheRing)
{
    Start(4, {noLimit, noLimit, noLimit});
    constexpr std::size_t calls = 40;  // a ring has room for some more
    for (int time = 0; time < 20; ++time) {
        InChild([] { MakeCalls(calls); });
        const std::vector<CeTraceEntry> entries = Read();
        ASSERT_EQ(entries.size(), calls);
        for (std::size_t i = 0; i < calls; ++i) {
            EXPECT_EQ(entries[i].number, callNumber);
            EXPECT_EQ(entries[i].arguments[0], i);
        }
    }
}

TEST_F(SyscallProbeTest, CountsEveryCallThatItDoesNotRecord)
{
    constexpr int calls = 50000;
    struct Case {
        std::size_t ringKb;
        SyscallProbe::Budgets budgets;
        bool drops;
        bool sheds;
    };
    for (const Case& each :
         {Case{4, {noLimit, noLimit, noLimit}, true, false}, Case{8192, {1, 100, noLimit}, false, true},
          Case{8192, {1, noLimit, 100}, false, true}, Case{8192, {}, false, true}}) {
        Start(each.ringKb, each.budgets);
        InChild([] { MakeCalls(calls); });
        const std::size_t read = Read().size();
        const SyscallLoss loss = trace->TakeSyscallLoss();
        EXPECT_EQ(read + loss.dropped + loss.shed, calls);
        EXPECT_GT(read, 0U);
        EXPECT_EQ(loss.dropped != 0, each.drops);
        EXPECT_EQ(loss.shed != 0, each.sheds);
        EXPECT_EQ(trace->TakeSyscallLoss().shed, 0U) << "counted once only";
        trace.reset();
    }
}

}  // namespace
}  // namespace Engine
