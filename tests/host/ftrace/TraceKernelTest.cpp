// SPDX-License-Identifier: Apache-2.0
// The trace instance and the BPF program on the real kernel.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "host/container/ExecutedProgram.h"
#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/SyscallProbeLayout.h"
#include "host/ftrace/TracefsCalls.h"
#include "host/sdk/FileDescriptor.h"
#include "messages/FtraceMessages.h"
#include "tests/support/MustRun.h"

namespace Engine {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using namespace std::chrono_literals;

constexpr int callNumber = SYS_ioprio_get;  // that no thread of a library makes by the way
constexpr std::size_t bufferKb = 64;

void MakeCalls(int count)
{
    for (int i = 0; i < count; ++i) {
        ::syscall(callNumber, i);
    }
}

// Runs `deed` in a child process, in the control group `group` if one is given.
template <class Deed>
pid_t StartChild(Deed deed, const char* group)
{
    const SDK::FileDescriptor directory{::open(group, O_PATH | O_DIRECTORY | O_CLOEXEC)};
    clone_args arguments{};
    arguments.flags = directory ? CLONE_INTO_CGROUP : 0;
    arguments.exit_signal = SIGCHLD;
    arguments.cgroup = static_cast<std::uint64_t>(directory.Get());
    const auto child = static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
    if (child == 0) {
        deed();
        ::_exit(0);
    }
    return child;
}
// And waits for its end.
template <class Deed>
pid_t InChild(Deed deed, const char* group = "")
{
    const pid_t child = StartChild(deed, group);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child) << std::strerror(errno);
    return child;
}
pid_t CallInChild(int count, const char* group = "")
{
    return InChild([count] { MakeCalls(count); }, group);
}

class TraceKernelTest : public Test, protected RecordSink {
protected:
    void SetUp() override { CE_REQUIRE(::geteuid() == 0 && CeTracefsDirectory() != nullptr, "needs root and tracefs"); }

    // `made`: null: the trace has the system calls, too. `reader`: the thread that is excluded.
    void Start(std::unique_ptr<SyscallProbe> made, int reader)
    {
        trace.reset();
        trace = std::make_unique<LiveTrace>(name, bufferKb, std::move(made));
        trace->ExcludeThread(reader);
        event = trace->Catalog()->Find("syscalls", "sys_enter_ioprio_get");
        ASSERT_EQ(trace->Record(*event), 0);
    }
    // As "fork PID", "exec PID FILE" and so on, in their order.
    void Follow(const std::string& system, const std::string& name)
    {
        followed.push_back(trace->Catalog()->Find(system, name));
        ASSERT_EQ(trace->Record(*followed.back()), 0);
    }
    void OnRecord(const RawRecord& record) override
    {
        for (const KnownEvent* each : followed) {
            if (each->id == record.id) {
                const FtraceMessage message{each->kind, record.data, record.size, {}};
                const bool isFork = each->kind.Event() == "sched_process_fork";
                const bool isMove = each->kind.System() == "cgroup";
                lives.push_back(
                    each->kind.Event() + " " + std::to_string(message.get_number(isFork ? "child_pid" : "pid")) + " " +
                    message.get_string("filename") + message.get_string("dst_path") + message.get_string("executed") +
                    (isMove ? " " + std::to_string(message.get_number("dst_id")) : ""));
                if (record.source.program != nullptr) {
                    executed = ExecutedProgram::Details(record.source.process, *record.source.program);
                }
                return;
            }
        }
        marks += record.afterLoss ? 1 : 0;
        if (record.size > sizeof(CeTraceEntry)) {
            return;  // of an event that a test turned on by all others
        }
        callerName = record.source.callerName != nullptr ? record.source.callerName : "";
        CeTraceEntry& entry = entries.emplace_back();
        std::memcpy(&entry, record.data, record.size);  // the trace keeps only the arguments that the call has
    }
    std::vector<CeTraceEntry> Read()
    {
        trace->Merger().Drain(*this);
        return std::exchange(entries, {});
    }

    const std::string name = TracefsInstance::OwnName();
    std::unique_ptr<LiveTrace> trace;
    const KnownEvent* event = nullptr;
    std::vector<CeTraceEntry> entries;
    std::string callerName;  // of the last one
    std::vector<const KnownEvent*> followed;
    std::vector<std::string> lives;
    std::shared_ptr<const SDK::ProcessDetails> executed;  // of the last one
    std::uint64_t marks = 0;
};

TEST_F(TraceKernelTest, TheHostIsExcludedWithItsChildrenUntilOneIsMoved)
{
    auto made = std::make_unique<SyscallProbe>(64);
    SyscallFilter* const filter = &made->Filter();
    Start(std::move(made), 0);
    const int self = ::getpid();
    const auto ticket = filter->TicketOf(self);
    ASSERT_TRUE(ticket);
    const std::string root = fs::exists("/sys/fs/cgroup/unified") ? "/sys/fs/cgroup/unified" : "/sys/fs/cgroup";
    const std::string group = root + "/probe-test-" + std::to_string(self);
    fs::create_directory(group);
    const auto join = [](const std::string& where) {
        std::ofstream{where + "/cgroup.procs"} << 0;
    };
    join(group);
    filter->Exclude(self, *ticket);
    MakeCalls(1);
    EXPECT_EQ(Read().size(), 1U) << "it was moved between the ticket and its use";

    filter->Exclude(self, filter->TicketOf(self).value_or(0));
    MakeCalls(1);
    CallInChild(1);
    EXPECT_TRUE(Read().empty());
    EXPECT_FALSE(filter->TicketOf(self));
    InChild([&] {
        join(root);
        CallInChild(1);
    });
    EXPECT_EQ(Read().size(), 1U) << "what a moved process forks is recorded, too";
    const pid_t child = CallInChild(1, root.c_str());
    EXPECT_THAT(Read(), ElementsAre(FieldsAre(FieldsAre(event->id, _, _, child), callNumber, self, _)))
        << "made in another group";
    std::array<char, CE_NAME_BYTES> own{};
    ::prctl(PR_GET_NAME, own.data());
    EXPECT_EQ(callerName, own.data());
    ASSERT_EQ(trace->Stop(*event), 0);
    CallInChild(1, root.c_str());
    EXPECT_TRUE(Read().empty());
    join(root);
    fs::remove(group);
}

// A container's other threads have spent its budget, and the thread its own part: its next step is still seen.
TEST_F(TraceKernelTest, WhatFollowsOnAnotherKindOfCallIsRecordedWhateverWasSpent)
{
    Start(std::make_unique<SyscallProbe>(64, SyscallProbe::Where::Best, SyscallProbe::Budgets{2, 100, 4}), 0);
    const KnownEvent* other = trace->Catalog()->Find("syscalls", "sys_enter_sched_get_priority_min");
    ASSERT_EQ(trace->Record(*other), 0);
    const auto kinds = [this] {
        std::string text;
        for (const CeTraceEntry& entry : Read()) {
            text += entry.head.type == event->id ? 'a' : 'b';
        }
        return text;
    };
    CallInChild(50);
    kinds();
    MakeCalls(50);
    const std::uint64_t shed = trace->TakeSyscallLoss().shed;
    EXPECT_GT(shed, 50U);
    kinds();
    ::syscall(SYS_sched_get_priority_min, 0);
    MakeCalls(20);
    EXPECT_EQ(kinds().substr(0, 2), "ba");
    EXPECT_EQ(trace->TakeSyscallLoss().dropped, 0U);
}

// By what is guaranteed to each of its processes, in process id namespaces that it makes.
TEST_F(TraceKernelTest, AContainerThatFillsTheRingLeavesRoomForAnother)
{
    Start(std::make_unique<SyscallProbe>(64), 0);
    const auto inNewNamespace = [](auto deed) {
        InChild([&deed] {
            ::unshare(CLONE_NEWPID);
            InChild(deed);
        });
    };
    cpu_set_t before;
    ::sched_getaffinity(0, sizeof before, &before);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned int>(::sched_getcpu()), &one);
    ::sched_setaffinity(0, sizeof one, &one);
    inNewNamespace([&] {
        for (int i = 0; i < 200; ++i) {
            inNewNamespace([] { MakeCalls(8); });
        }
    });
    EXPECT_GT(trace->TakeSyscallLoss().dropped, 800U);
    inNewNamespace([] { MakeCalls(8); });
    EXPECT_EQ(trace->TakeSyscallLoss().dropped, 0U);
    EXPECT_THAT(Read().size(), AllOf(Ge(400U), Le(600U)));
    ::sched_setaffinity(0, sizeof before, &before);
}

TEST_F(TraceKernelTest, LivesAreRecordedFromTheMoveOnWithWhatWasBefore)
{
    SyscallProbe::Budgets budgets;
    budgets.programs = 1;
    auto made = std::make_unique<SyscallProbe>(64, SyscallProbe::Where::Best, budgets);
    SyscallFilter* const filter = &made->Filter();
    Start(std::move(made), 0);
    for (const char* name : {"fork", "exec", "exit"}) {
        Follow("sched", std::string{"sched_process_"} + name);
    }
    Follow("cgroup", "cgroup_attach_task");
    const int self = ::getpid();
    filter->Exclude(self, filter->TicketOf(self).value_or(0));
    const std::string root = fs::exists("/sys/fs/cgroup/unified") ? "/sys/fs/cgroup/unified" : "/sys/fs/cgroup";
    const std::string group = root + "/probe-test-" + std::to_string(self);
    fs::create_directory(group);
    struct stat status = {};
    ::stat(group.c_str(), &status);
    const std::string groupId = " " + std::to_string(status.st_ino);  // a control group's id is its inode's number
    const std::string file = fs::temp_directory_path() / std::string(100, 'n') / "x";
    const std::string script = "cd /bin; echo $$ >" + group + "/cgroup.procs; exec " + file + " a '' b";
    const SDK::FileDescriptor shell{::open("/bin/sh", O_RDONLY)};
    fs::create_directory(fs::path{file}.parent_path());
    fs::copy_file("/bin/true", file, fs::copy_options::overwrite_existing);
    const auto run = [&] {
        const char* const arguments[] = {"sh", "-c", script.c_str(), nullptr};
        ::fexecve(shell.Get(), const_cast<char* const*>(arguments), environ);
    };
    // What is recorded of that process; others are not excluded here.
    const auto livesOf = [this](const std::string& pid) {
        Read();
        std::erase_if(lives, [&pid](const std::string& line) { return line.find(pid) == std::string::npos; });
        return std::exchange(lives, {});
    };
    const auto id = [](pid_t pid) {
        return " " + std::to_string(pid) + " ";
    };
    EXPECT_THAT(livesOf(id(InChild([] { ::execl("/bin/sh", "sh", "-c", "true", nullptr); }))), IsEmpty());
    const std::string moved = id(InChild(run));
    EXPECT_THAT(livesOf(moved), ElementsAre("cgroup_attach_task" + moved + group.substr(root.size()) + "/dev/fd/" +
                                                std::to_string(shell.Get()) + groupId,
                                            "sched_process_exec" + moved + file, "sched_process_exit" + moved));
    ASSERT_NE(executed, nullptr);
    EXPECT_EQ(" " + std::to_string(executed->process) + " ", moved);
    EXPECT_EQ(executed->parent, self);
    EXPECT_THAT(executed->arguments, ElementsAre(file, "a", "", "b"));
    EXPECT_EQ(executed->executable, fs::canonical(file));
    EXPECT_EQ(executed->workingDirectory, fs::canonical("/bin"));
    const auto own = SDK::SystemView::Current().Describe(self);
    EXPECT_EQ(std::tie(executed->uid, executed->gid, executed->loginUid, executed->capabilities),
              std::tie(own->uid, own->gid, own->loginUid, own->capabilities));
    EXPECT_THAT((executed->started - own->started).count(), AllOf(Gt(0), Lt(60'000'000'000)));
    const std::string born = id(InChild([] {}, group.c_str()));
    EXPECT_THAT(livesOf(born), ElementsAre("sched_process_fork" + born, "cgroup_attach_task" + born + groupId,
                                           "sched_process_exit" + born));
    fs::remove(group);
    fs::remove_all(fs::path{file}.parent_path());
}

TEST_F(TraceKernelTest, ThreadsAreListedWithTheirControlGroupsAndThoseWithoutIdentityAreGivenOne)
{
    const std::string root = fs::exists("/sys/fs/cgroup/unified") ? "/sys/fs/cgroup/unified" : "/sys/fs/cgroup";
    const std::string group = root + "/probe-test-" + std::to_string(::getpid());
    fs::create_directory(group);
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
    SDK::FileDescriptor wait{pipe[0]};
    SDK::FileDescriptor hold{pipe[1]};
    std::vector<pid_t> children;
    for (const char* where : {group.c_str(), group.c_str(), group.c_str(), ""}) {
        children.push_back(StartChild(
            [&] {
                hold = {};
                char none = 0;
                ::read(wait.Get(), &none, 1);
            },
            where));
    }
    ::kill(children[2], SIGKILL);
    siginfo_t ended{};
    ::waitid(P_PID, static_cast<id_t>(children[2]), &ended, WEXITED | WNOWAIT);
    SyscallProbe probe(64);  // younger than the children
    SyscallFilter& filter = probe.Filter();
    std::vector<SyscallFilter::Listed> listed;
    const auto find = [&listed](pid_t thread) -> SyscallFilter::Listed {
        const auto found =
            std::find_if(listed.begin(), listed.end(), [&](const auto& each) { return each.thread == thread; });
        return found == listed.end() ? SyscallFilter::Listed{} : *found;
    };
    std::thread([&] {
        listed = filter.List({});
        EXPECT_EQ(find(::gettid()).process, ::getpid());
        EXPECT_EQ(find(::gettid()).parent, ::getppid());
        EXPECT_EQ(find(::gettid()).groups, find(::getpid()).groups);
        const auto stat = SDK::SystemView::Current().StatOf(::gettid());
        EXPECT_THAT((find(::gettid()).started - stat->started) / 1ms, AllOf(Ge(0), Le(20)));
    }).join();
    EXPECT_TRUE(
        std::is_sorted(listed.begin(), listed.end(), [](const auto& a, const auto& b) { return a.thread < b.thread; }));
    EXPECT_THAT(listed.size(), Ge(SDK::SystemView::Current().Processes().size() / 2));
    EXPECT_EQ(find(children[0]).groups, find(children[1]).groups);
    EXPECT_NE(find(children[0]).groups, find(children[3]).groups);
    EXPECT_EQ(find(children[2]).groups, 0U) << "a zombie";
    const std::uint32_t number = filter.NewIdentity();
    SyscallFilter::Given given{{{find(children[0]).groups, number}}, {children[1]}};
    while (given.numbers.size() < std::size_t{2} * CE_MOST_GIVEN) {
        given.numbers.emplace(given.numbers.size(), 9);
    }
    listed = filter.List(given);
    EXPECT_EQ(find(children[0]).identity.number, number);
    EXPECT_EQ(find(children[1]).identity.number, 0U);
    EXPECT_EQ(find(children[3]).identity.number, 0U);
    listed = filter.List({{{find(children[0]).groups, filter.NewIdentity()}}, {}});
    EXPECT_EQ(find(children[0]).identity.number, number);
    EXPECT_EQ(find(children[1]).identity.number, number + 1);
    hold = {};
    for (const pid_t child : children) {
        ::waitpid(child, nullptr, 0);
    }
    fs::remove(group);
}

TEST_F(TraceKernelTest, EveryEventOfTheTraceIsReadOrCountedAsLostAndNoneOfTheReaderIs)
{
    constexpr std::uint64_t written = 20'000;
    for (const bool excluded : {false, true}) {
        Start(nullptr, excluded ? ::gettid() : 0);
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
    const fs::path instances = fs::path{CeTracefsDirectory()} / "instances";
    EXPECT_THROW((TracefsInstance{name, std::size_t{1} << 40}), std::system_error) << "more than there is";
    EXPECT_FALSE(fs::exists(instances / name));

    const std::string prefix = TracefsInstance::namePrefix;
    const TracefsInstance other{prefix + "1x", bufferKb};
    const pid_t child = InChild([] { new TracefsInstance{TracefsInstance::OwnName(), bufferKb}; });  // as if killed
    EXPECT_GE(TracefsInstance::RemoveLeftovers(), 1U);
    EXPECT_FALSE(fs::exists(instances / (prefix + std::to_string(child))));
    EXPECT_TRUE(fs::exists(instances / other.Name()));
}

TEST_F(TraceKernelTest, WhatAnotherProgramChangesIsSaidOnceAndPutBack)
{
    Start(nullptr, 0);
    const std::string root = std::string{CeTracefsDirectory()} + "/instances/" + name;
    const std::string folder = root + "/events/syscalls/sys_enter_ioprio_get/";
    ASSERT_THAT(trace->Repair(), IsEmpty());
    const std::vector<std::pair<std::string, std::string>> ways{
        {folder + "enable", "0"},         {folder + "filter", "common_pid == 1"},
        {folder + "trigger", "traceoff"}, {root + "/events/enable", "0"},
        {root + "/events/enable", "1"},   {root + "/tracing_on", "0"},
        {root + "/buffer_size_kb", "4"},  {root + "/per_cpu/cpu0/buffer_size_kb", "4"},
        {root + "/set_event_pid", "1"},   {root + "/set_event_notrace_pid", std::to_string(::getpid())},
        {root + "/tracing_cpumask", "0"}, {root + "/trace_clock", "local"},
        {root + "/free_buffer", ""}};
    for (const auto& [file, text] : ways) {
        std::ofstream{file} << text << std::flush;
        MakeCalls(1);  // may set a trigger off
        std::vector<std::string> found = trace->Repair();
        EXPECT_THAT(found, Not(IsEmpty())) << file;
        for (int looks = 0; looks < 100 && !found.empty(); ++looks) {  // all events in several goes
            EXPECT_THAT(found, Not(Contains(HasSubstr("cannot be put back")))) << file;
            found = trace->Repair();
        }
        Read();
        MakeCalls(3);
        EXPECT_EQ(Read().size(), 3U) << "recorded as before: " << file << " " << text;
    }
    EXPECT_EQ(::rmdir(root.c_str()), -1) << "it is in use";
    trace->TakeLoss();
    MakeCalls(3);
    std::ofstream{root + "/trace"} << std::flush;
    EXPECT_TRUE(trace->TakeLoss().wasCleared);
    MakeCalls(3);
    const SDK::FileDescriptor other{::open((root + "/trace_pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    std::array<char, 4096> text{};
    EXPECT_GT(::read(other.Get(), text.data(), text.size()), 0);
    EXPECT_TRUE(Read().empty());
    EXPECT_EQ(trace->TakeLoss().readByOthers, 3U);
}

}  // namespace
}  // namespace Engine
