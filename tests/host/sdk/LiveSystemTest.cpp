// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/LiveSystem.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

#include "support/TemporaryDirectory.h"

namespace {

using namespace std::string_view_literals;
using SDK::LiveSystem;
using SDK::ProcessUtils;

class LiveSystemTest : public testing::Test {
protected:
    TemporaryDirectory proc;
    LiveSystem system{proc.Path()};
};

TEST_F(LiveSystemTest, ReadsNameAndParentWhateverTheNameHolds)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"x\\nPPid:\\t1", "x\nPPid:t1"},
        {"end\\", "end\\"},
        {"PPid:\t1", "PPid:\t1"},
        {"kworker/u8:3-events_unbound", "kworker/u8:3-ev"},
    };
    for (const auto& [written, name] : rows) {
        proc.Write("7/status", "Name:\t" + written + "\nUmask:\t0022\nPPid:\t42\nPPidX:\t1\n");
        ProcessUtils::procStatus status;
        EXPECT_EQ(system.Status(7, status), 0) << written;
        EXPECT_EQ(status.name, name);
        EXPECT_EQ(status.ppid, 42);
    }
    std::thread reader([] {  // as this kernel writes it
        ::prctl(PR_SET_NAME, "a\\b\nPPid:\t1");
        ProcessUtils::procStatus status;
        EXPECT_EQ(LiveSystem().Status(::gettid(), status), 0);
        EXPECT_EQ(status.name, "a\\b\nPPid:\t1");
    });
    reader.join();
}

TEST_F(LiveSystemTest, AHalfWrittenOrGoneProcessLeavesTheAnswerAlone)
{
    ProcessUtils::procStatus status{5, "before"};
    EXPECT_EQ(system.Status(7, status), -1);
    for (const char* part : {"", "Name:\tsh\n", "PPid:\t1\n", "Name:\tsh\nPPid:\t99999999999\n"}) {
        proc.Write("7/status", part);
        EXPECT_EQ(system.Status(7, status), -1) << part;
    }
    EXPECT_EQ(status.ppid, 5);
    EXPECT_EQ(status.name, "before");
}

TEST_F(LiveSystemTest, ListsProcessesInOrderAndJoinsTheirArguments)
{
    for (const char* name : {"10/x", "self/x", "1x/x", "-3/x", "0/x", "99999999999/x"}) {
        proc.Write(name, "");
    }
    proc.Write("7/cmdline", "sh\0-c\0\0echo  hi\0\0\0"sv);
    EXPECT_THAT(system.Processes(), testing::ElementsAre(7, 10));
    std::string commandLine;
    EXPECT_EQ(system.CommandLine(7, commandLine), 0);
    EXPECT_EQ(commandLine, "sh -c  echo  hi") << "without the padding at its end";
}

// Another thread tries to take it away while it answers.
class SlowResolver : public SDK::ContainerResolver {
public:
    explicit SlowResolver(LiveSystem& system) : system(system) { system.SetContainerResolver(this); }
    bool MayBeEntering(int /*pid*/) override { return false; }
    int ContainerOf(int, std::string& container) override
    {
        cleared = std::async(std::launch::async, [this] { system.SetContainerResolver(nullptr); });
        EXPECT_EQ(cleared.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
        container = "resolved";
        return 0;
    }

    LiveSystem& system;
    std::future<void> cleared;
};

TEST_F(LiveSystemTest, AsksTheResolverAndNeverTakesItAwayUnderACaller)
{
    const std::string id(64, 'b');
    proc.Write("7/cgroup", "1:name=systemd:/\n0::/docker/" + id + "\n");
    SlowResolver resolver(system);
    std::string container;
    EXPECT_EQ(system.ContainerOf(7, container), 0);
    EXPECT_EQ(container, "resolved");
    resolver.cleared.wait();
    EXPECT_EQ(system.ContainerOf(7, container), 0);  // by the process's groups, now that nobody else is asked
    EXPECT_EQ(container, id);
}

// The child inherits a name that would shift the fields if these were counted from the line's start.
TEST(LiveSystemStartTest, StartIsOnTheTraceClockWhateverTheNameHolds)
{
    ::prctl(PR_SET_NAME, "a) S 1 (2 3");
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    const pid_t child = ::fork();
    if (child == 0) {
        ::pause();
    }
    const auto after = std::chrono::steady_clock::now().time_since_epoch();
    LiveSystem live;
    const auto start = live.StartTime(child);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(start.has_value());
    EXPECT_GE(*start, before - std::chrono::milliseconds{20});
    EXPECT_LE(*start, after);
    EXPECT_FALSE(live.StartTime(child).has_value());
}

}  // namespace
