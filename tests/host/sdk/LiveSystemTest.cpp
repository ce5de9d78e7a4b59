// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/LiveSystem.h"

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

#include "support/TemporaryDirectory.h"

namespace {

using namespace std::chrono_literals;
using SDK::LiveSystem;

class LiveSystemTest : public testing::Test, protected SDK::ContainerResolver {
protected:
    bool MayBeEntering(int /*pid*/) override { return false; }

    // Another thread tries to take the resolver away while it answers.
    int ContainerOf(int /*pid*/, std::string& container) override
    {
        cleared = std::async(std::launch::async, [this] { system.SetContainerResolver(nullptr); });
        container = cleared.wait_for(30ms) == std::future_status::timeout ? "resolved" : "gone under its caller";
        return 0;
    }

    TemporaryDirectory proc;
    LiveSystem system{proc.Path()};
    std::future<void> cleared;
};

TEST_F(LiveSystemTest, ReadsWhatTheKernelWritesWhateverNamesAndArgumentsHold)
{
    const std::tuple<std::string, std::string, int> rows[] = {
        {"Name:\tx\\nPPid:\\t1\nPPid:\t42\n", "x\nPPid:t1", 42},
        {"Name:\tPPid:\t1\nUmask:\t0022\nPPid:\t42\nPPidX:\t1\n", "PPid:\t1", 42},
        {"Name:\tkworker/u8:3-events_unbound\nPPid:\t42\n", "kworker/u8:3-ev", 42},
        {"", "before", 5},  // of a process that is gone while it is read
        {"Name:\tsh\n", "before", 5},
        {"Name:\tsh\nPPid:\t99999999999\n", "before", 5}};
    for (const auto& [text, name, parent] : rows) {
        proc.Write("7/status", text);
        SDK::ProcessUtils::procStatus status{5, "before"};
        EXPECT_EQ(system.Status(7, status), parent == 5 ? -1 : 0) << text;
        EXPECT_EQ(std::tie(status.name, status.ppid), std::tie(name, parent));
    }
    for (const char* name : {"10/x", "self/x", "1x/x", "-3/x", "0/x", "99999999999/x"}) {
        proc.Write(name, "");
    }
    EXPECT_THAT(system.Processes(), testing::ElementsAre(7, 10));
    proc.Write("7/cmdline", std::string_view("sh\0-c\0\0echo  hi\0\0\0", 18));
    std::string commandLine;
    EXPECT_EQ(system.CommandLine(7, commandLine), 0);
    EXPECT_EQ(commandLine, "sh -c  echo  hi") << "without the padding at its end";
}

TEST_F(LiveSystemTest, AsksTheResolverAndNeverTakesItAwayUnderACaller)
{
    const std::string id(64, 'b');
    proc.Write("7/cgroup", "1:name=systemd:/\n0::/docker/" + id + "\n");
    system.SetContainerResolver(this);
    for (const std::string& expected : {std::string("resolved"), id}) {
        std::string container;
        EXPECT_EQ(system.ContainerOf(7, container), 0);
        EXPECT_EQ(container, expected);
        cleared.wait();
    }
}

// The name would shift the fields if these were counted from the line's start.
TEST(LiveSystemKernelTest, NameAndStartOnTheTraceClockWhateverTheNameHolds)
{
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    std::thread([before] {
        ::prctl(PR_SET_NAME, "a) S 1\\\n(2 3");
        SDK::ProcessUtils::procStatus status;
        EXPECT_EQ(LiveSystem().Status(::gettid(), status), 0);
        EXPECT_EQ(status.name, "a) S 1\\\n(2 3");
        const auto stat = LiveSystem().StatOf(::gettid()).value_or(SDK::SystemView::Stat{});
        EXPECT_GE(stat.started, before - SDK::SystemView::startRounding);
        EXPECT_LE(stat.started, std::chrono::steady_clock::now().time_since_epoch());
        EXPECT_EQ(stat.parent, ::getppid());
    }).join();
}

}  // namespace
