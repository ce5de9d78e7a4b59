// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/LiveSystem.h"

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

#include "host/sdk/TempDirectory.h"
#include "sdk/NamespaceUtils.h"

namespace {

using SDK::LiveSystem;
using SDK::ProcessUtils;
using testing::ElementsAre;

const std::string id(64, 'a');

class LiveSystemTest : public testing::Test {
protected:
    std::string CommandLineOf(std::string_view arguments)
    {
        proc.Write("7/cmdline", arguments);
        std::string commandLine;
        EXPECT_EQ(system.CommandLine(7, commandLine), 0);
        return commandLine;
    }

    TempDirectory proc;
    LiveSystem system{proc.Path()};
};

TEST_F(LiveSystemTest, ReadsNameAndParentWhateverTheNameHolds)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"sh", "sh"},
        {"", ""},
        {"a) R 1 (b", "a) R 1 (b"},
        {"x\\nPPid:\\t1", "x\nPPid:t1"},
        {"\\\\n", "\\n"},
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
}

TEST_F(LiveSystemTest, LeavesTheAnswerAloneWhenThereIsNoWholeStatus)
{
    for (const char* text :
         {"", "Name:\tsh\n", "PPid:\t1\n", "Name:\tsh\nPPid:\tx\n", "Name:\tsh\nPPid:\t99999999999\n"}) {
        proc.Write("7/status", text);
        ProcessUtils::procStatus status{5, "before"};
        EXPECT_EQ(system.Status(7, status), -1) << text;
        EXPECT_EQ(status.ppid, 5);
        EXPECT_EQ(status.name, "before");
    }
}

TEST_F(LiveSystemTest, AnswersForAProcessThatHasGone)
{
    std::string text = "before";
    ProcessUtils::procStatus status;
    std::map<std::string, std::string> namespaces{{"mnt", "stale"}};
    EXPECT_EQ(system.ContainerOf(7, text), -1);
    EXPECT_EQ(system.ExecutablePath(7, text), -1);
    EXPECT_EQ(system.CommandLine(7, text), -1);
    EXPECT_EQ(system.Status(7, status), -1);
    EXPECT_EQ(system.Namespaces(7, namespaces), -1);
    EXPECT_EQ(text, "before");
    EXPECT_TRUE(namespaces.empty());
}

TEST_F(LiveSystemTest, JoinsArgumentsAndDropsThePadding)
{
    using namespace std::string_view_literals;
    EXPECT_EQ(CommandLineOf("sh\0-c\0echo  hi\0"sv), "sh -c echo  hi");
    EXPECT_EQ(CommandLineOf("sshd: user\0\0\0\0"sv), "sshd: user");
    EXPECT_EQ(CommandLineOf("a\0\0b\0"sv), "a  b");
    EXPECT_EQ(CommandLineOf(""sv), "");
    EXPECT_EQ(CommandLineOf(std::string(9000, 'x')).size(), 4096U);
}

TEST_F(LiveSystemTest, ListsProcessesInOrder)
{
    for (const char* name : {"10/x", "9/x", "100/x", "self/x", "1x/x", "-3/x", "0/x", "99999999999/x"}) {
        proc.Write(name, "");
    }
    EXPECT_THAT(system.Processes(), ElementsAre(9, 10, 100));
}

TEST(LiveSystemOnThisKernelTest, KnowsThisProcessAndItsThreads)
{
    LiveSystem system;
    std::string path;
    EXPECT_EQ(system.ExecutablePath(static_cast<unsigned int>(::getpid()), path), 0);
    EXPECT_THAT(path, testing::EndsWith("/test_sdk"));
    EXPECT_THAT(system.Processes(), testing::Contains(::getpid()));

    std::map<std::string, std::string> namespaces;
    ASSERT_EQ(SDK::NamespaceUtils::GetProcessNamespace(::getpid(), namespaces), 0);
    EXPECT_EQ(namespaces.size(), 6U);
    for (const auto& [kind, text] : namespaces) {
        EXPECT_THAT(text, testing::StartsWith(kind + ":["));
    }

    std::thread([&] {
        ::prctl(PR_SET_NAME, "a\\b\nPPid:\t1");
        ProcessUtils::procStatus status;
        EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(::gettid(), status), 0);
        EXPECT_EQ(status.name, "a\\b\nPPid:\t1");
        EXPECT_EQ(status.ppid, ::getppid());
    }).join();
}

// Answers once it is let go, so that a call can be caught inside.
class SlowResolver : public SDK::ContainerResolver {
public:
    int ContainerOf(int, std::string& container) override
    {
        entered.set_value();
        letGo.get_future().wait();
        container = id;
        return 0;
    }

    std::promise<void> entered;
    std::promise<void> letGo;
};

TEST_F(LiveSystemTest, AsksTheResolverAndNeverTakesItAwayUnderACaller)
{
    const std::string other(64, 'b');
    proc.Write("7/cgroup", "1:name=systemd:/\n0::/docker/" + other + "\n");
    SlowResolver resolver;
    system.SetContainerResolver(&resolver);
    std::string container;
    std::thread caller([&] { EXPECT_EQ(system.ContainerOf(7, container), 0); });
    resolver.entered.get_future().wait();

    auto cleared = std::async(std::launch::async, [&] { system.SetContainerResolver(nullptr); });
    EXPECT_EQ(cleared.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    resolver.letGo.set_value();
    caller.join();
    cleared.wait();
    EXPECT_EQ(container, id);
    EXPECT_EQ(system.ContainerOf(7, container), 0);  // by the process's groups, now that nobody else is asked
    EXPECT_EQ(container, other);
    proc.Write("7/cgroup", "0::/init.scope\n");
    EXPECT_EQ(system.ContainerOf(7, container), 0);
    EXPECT_EQ(container, "");
}

class FixedClock : public LiveSystem {
public:
    std::int64_t WallClockSeconds() override { return 1234; }
};

TEST(SystemViewTest, AnotherViewAnswersUntilTheLiveOneIsBack)
{
    FixedClock fixed;
    SDK::SystemView* const live = SDK::SystemView::Exchange(&fixed);
    EXPECT_EQ(SDK::SystemView::Current().WallClockSeconds(), 1234);
    EXPECT_EQ(SDK::SystemView::Exchange(nullptr), &fixed);
    EXPECT_EQ(&SDK::SystemView::Current(), live);
    EXPECT_GT(live->WallClockSeconds(), 1'700'000'000);
}

}  // namespace
