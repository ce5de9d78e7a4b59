// SPDX-License-Identifier: Apache-2.0
// What an operator gets wrong is refused before anything starts because of it, by its name; and the parts of the
// process.
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "host/agent/Agent.h"
#include "host/agent/Console.h"
#include "host/agent/Document.h"
#include "host/agent/ImpairmentReport.h"
#include "host/agent/Options.h"
#include "host/agent/PolicyFile.h"
#include "host/agent/Signals.h"
#include "host/agent/Watchdog.h"
#include "host/sdk/Impairments.h"
#include "host/sdk/Realtime.h"
#include "support/MustRun.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace Agent;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::ThrowsMessage;

bool IsRealtime(pid_t tid)
{
    return (::sched_getscheduler(tid) & ~SCHED_RESET_ON_FORK) == SCHED_RR;
}

TEST(OptionsTest, ABadCommandLineIsRefused)
{
    const TemporaryDirectory directory;
    const std::string nowhere = directory / "x/y";
    const std::string policy = CE_EXAMPLE_POLICY;
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows{
        {{}, "no command"},
        {{"start"}, "start"},
        {{"policy"}, "explain?"},
        {{"policy", "show"}, "show"},
        {{"run"}, "--policy is required"},
        {{"run", "--policy", policy, "--log-level", "loud"}, "--log-level: loud"},
        {{"run", "--policy", policy, "--buffer-kb=2"}, "not in range 4"},
        {{"run", "--policy", policy, "--realtime=96"}, "not in range 0"},
        {{"run", "--policy", nowhere}, "y: No such file"},
        {{"run", "--policy", policy, "--modules", nowhere}, "module " + nowhere + "/libreport_module.so"},
        {{"run", "--policy", policy, "--modules", CE_MODULES, "--alarms", nowhere}, "alarms file"},
        {{"run", "--policy", policy, "--modules", CE_MODULES, "--stats", nowhere}, "statistics file"},
    };
    for (const auto& [words, reason] : rows) {
        EXPECT_THAT([&words = words] { MakePlan(ParseOptions(words)); }, ThrowsMessage<BadInput>(HasSubstr(reason)));
    }
}

TEST(OptionsTest, TheConfigurationSetsWhatTheCommandLineDoesNotAndItsMistakesHaveTheirPlaces)
{
    const TemporaryDirectory directory;
    const auto parse = [&](const std::string& text, const std::vector<std::string>& more = {}) {
        std::vector<std::string> words{"run", "--config", directory.Write("agent.json", text)};
        words.insert(words.end(), more.begin(), more.end());
        return ParseOptions(words);
    };
    const std::string good = R"({"policy": "p", "realtime": 3,
        "require-all": true, "namespace-check": false, "log-level": "debug"})";
    const Options options = parse(good, {"--realtime=4"});
    EXPECT_EQ(options.policyFile + ' ' + options.logLevel, "p debug");
    EXPECT_EQ(options.realtimePercent, 4U);
    EXPECT_TRUE(options.requireAll && !options.namespaceCheck);
    const std::string shown = ShowValues(options);
    for (const char* line : {"realtime: 4 (command line)\n", "require-all: true (", "agent.json, line 2, column 24)\n",
                             "namespace-check: false (", "syscalls: auto (default)\n", "stats: not set (default)\n"}) {
        EXPECT_THAT(shown, HasSubstr(line));
    }
    for (const auto& [text, reason] : std::vector<std::pair<std::string, std::string>>{
             {R"({"polcy": "p"})", R"(agent.json: line 1, column 11: unknown key "polcy", is "policy" meant?)"},
             {R"({"nothing-like-it": 1})", R"(unknown key "nothing-like-it")"},
             {R"({"config": "x"})", R"(unknown key "config")"},
             {R"({"policy": "p", "realtime": 96})", "agent.json, line 1, column 29: --realtime: Value 96 not in range"},
             {R"({"require-all": "yes"})", "require-all: must be true or false, is a text"},
             {R"({"alarms": [1]})", "alarms: must be a text, is a list"},
             {R"({"alarms": "a", "alarms": "b"})", "not JSON: line 1"},
             {R"({"realtime": 3})", "--policy is required"}}) {
        EXPECT_THAT(([&parse, &text = text] { parse(text); }), ThrowsMessage<BadInput>(HasSubstr(reason))) << text;
    }
}

TEST(PolicyFileTest, ABadDocumentIsRefusedWithPlaceAndReason)
{
    const std::string start = R"({"content": {"image_white_namelist": [], "container_escape_detect_task": {)";
    const std::vector<std::pair<std::string, std::string>> rows{
        {std::string("{\"content\"\0: {}}", 16), "not JSON"},
        {"\xEF\xBB\xBF{}", "byte-order mark"},
        {"[]", "line 1, column 1: the document: must be an object, is a list"},
        {R"({"content": {"image_white_namelist": 7}})", "content.container_escape_detect_task: is missing"},
        {start + "\n\n\"highrisk_calls\": [\"a\",\n  4]}}}",
         "line 4, column 3: content.container_escape_detect_task.highrisk_calls[1]: must be a text, is a number"},
        {start + R"("highrisk_calls": [], "host_directorys": {}}}})", "host_directorys: must be a list, is an object"},
        {start + R"("scope": ["thread"]}}})", R"(detect_task.scope: must be "thread" or "container")"},
    };
    for (const auto& [text, reason] : rows) {
        EXPECT_THAT([&text = text] { ParsePolicy(text); }, ThrowsMessage<BadInput>(HasSubstr(reason))) << text;
    }
}

TEST(PolicyFileTest, OnlyARegularFileOfBoundedSizeIsReadAndEveryEntryIsWatchedOrNamedWithItsReason)
{
    const TemporaryDirectory directory;
    const std::string& good = directory.Path();
    std::vector<std::string> warnings;
    EXPECT_THAT([&] { Document::Read("policy", good, warnings); },
                ThrowsMessage<BadInput>(HasSubstr("not a regular file")));
    const std::string large = directory.Write("large", std::string(Document::maxBytes + 1, ' '));
    EXPECT_THAT([&] { Document::Read("policy", large, warnings); },
                ThrowsMessage<BadInput>(HasSubstr("larger than 1048576 bytes")));

    directory.Write("sys_enter_bpf", "");
    directory.Write("sys_enter_/outside", "");
    Policy policy = ParsePolicy(R"({"version": 1, "content": {"image_white_namelist": ["i", "n*", "a/b"], "other": 2,
        "container_escape_detect_task": {"highrisk_calls": ["mount", "mount", "bpf", "none", "/outside"], "x": 3,
        "host_directorys": ["", "etc", "/proc", "/sys", "/bin/sh", "/root", ")" +
                                good + R"(", ")" + good + R"(*/*rwxa", ")" + good + R"(*/*", ")" + good +
                                R"(*/*q", ")" + good + R"(/none*/*r"]}}})");
    const KernelCoverage kernel{
        {"syscalls:sys_enter_mount", "syscalls:sys_enter_open_by_handle_at", "syscalls:sys_enter_getdents"},
        {{good, ""},
         {good + "*/*rwxa", ""},
         {good + "/none*/*r", ""},
         {"/sys", "refused"},
         {"/proc", ""},
         {"/bin/sh", ""}},
        good};
    const PolicyCoverage coverage = Examine(policy, kernel);
    EXPECT_EQ(coverage.calls, 1U);
    EXPECT_EQ(coverage.directories, 4U);
    EXPECT_THAT(coverage.detectors, testing::ElementsAre("brute-forced file handles"));
    EXPECT_THAT(coverage.warnings,
                testing::UnorderedElementsAre(
                    HasSubstr("key version"), HasSubstr("key content.other"),
                    HasSubstr("key content.container_escape_detect_task.x"),
                    HasSubstr("policy line 2, column 79: call \"bpf\": the detection module"),
                    HasSubstr("\"none\": the kernel"), HasSubstr("\"/outside\": is no name of"),
                    HasSubstr("\"a/b\": no image is called so"), HasSubstr("*/*\""), HasSubstr("*/*q\""),
                    HasSubstr("No such file or directory, it is not watched"), HasSubstr("\"\""),
                    HasSubstr("\"etc\": not an absolute path, it is not watched"),
                    HasSubstr("\"/sys\": refused, it is not watched"), HasSubstr("\"/root\": there are no"),
                    HasSubstr("\"/proc\": is the host's own"), HasSubstr("\"/bin/sh\": is not a directory"),
                    HasSubstr("highrisk_calls[1]: \"mount\" is there twice"), HasSubstr("\"n*\": is compared"),
                    HasSubstr("does not record getdents64, so attacks are missed: Shocker")));
    policy.isScopeContainer = true;
    EXPECT_EQ(Examine(policy, kernel).directories, 5U) << "a later path is waited for, a bad entry is not";
}

TEST(ImpairmentReportTest, EachCauseIsToldOnceAMinuteForEachContainerWithWhatCameMeanwhile)
{
    std::vector<std::string> sent;
    ImpairmentReport report([&sent](const std::string& document) { sent.push_back(document); });
    const auto look = [&](std::chrono::seconds at, std::uint64_t dropped, const char* container) {
        SDK::Impairments::SetLoudest(SDK::Impairments::Source::Trace, container);
        sent.clear();
        report.Look(ImpairmentReport::Clock::time_point{at}, {{"trace.lost_dropped", dropped}}, nullptr);
        return sent;
    };
    EXPECT_THAT(look(1s, 0, "a"), testing::IsEmpty());
    EXPECT_THAT(look(2s, 5, "a"),
                testing::ElementsAre(
                    testing::AllOf(HasSubstr(R"("event_name":"Detection impaired")"), HasSubstr(R"("count":5)"),
                                   HasSubstr(R"("cause":"event ring overflow")"), HasSubstr(R"("container_id":"a")"))));
    EXPECT_THAT(look(3s, 7, "a"), testing::IsEmpty());
    EXPECT_THAT(look(4s, 8, "b"), testing::ElementsAre(HasSubstr(R"("container_id":"b")")));
    SDK::Impairments::Report("agent stopped", "x");
    EXPECT_THAT(look(61s, 8, "b"), testing::ElementsAre(HasSubstr(R"("cause":"agent stopped")")));
    EXPECT_THAT(look(62s, 8, "b"), testing::ElementsAre(HasSubstr(R"("count":2)")));
}

TEST(RealtimeBudgetTest, IsSharedByAllAndBeginsAnewWithEachSecond)
{
    SDK::RealtimeBudget budget;
    budget.Set(700ms);
    EXPECT_TRUE(budget.Spend(10'000ms, 400ms));
    EXPECT_FALSE(budget.Spend(10'500ms, 400ms));
    EXPECT_FALSE(budget.Spend(10'999ms, 0ms));
    EXPECT_TRUE(budget.Spend(11'000ms, 0ms));
}

// It does nothing for it: in a storm it would not run.
TEST(RealtimeBudgetTest, AThreadGetsThePriorityBackWhenTheSecondIsOver)
{
    SDK::Realtime::Configure(1, {"spender"});
    std::promise<pid_t> demoted;
    std::promise<void> seen;
    std::thread spender{[&] {
        SDK::Realtime::Enter("spender");
        const bool isRaised = IsRealtime(0);
        while (isRaised && IsRealtime(0)) {
            SDK::Realtime::Watch();
        }
        demoted.set_value(isRaised ? ::gettid() : 0);
        seen.get_future().wait();
    }};
    const pid_t tid = demoted.get_future().get();
    for (int tries = 0; tid != 0 && !IsRealtime(tid) && tries < 60'000; ++tries) {
        std::this_thread::sleep_for(1ms);
    }
    const bool isBack = IsRealtime(tid);
    seen.set_value();
    spender.join();
    CE_REQUIRE(tid != 0, "needs CAP_SYS_NICE");
    EXPECT_TRUE(isBack);
    bool atBirth = false;
    bool afterwards = true;
    {
        const SDK::Realtime::Loan loan;
        std::thread{[&] {
            atBirth = IsRealtime(0);
            SDK::Realtime::Enter("another");
            afterwards = IsRealtime(0);
        }}.join();
    }
    EXPECT_TRUE(atBirth && !afterwards && !IsRealtime(0)) << "a loan is the lender's, and for a while";
}

// In a process of their own: they change what signals do there.
TEST(SignalsDeathTest, AStopGoesBeforeAReloadAndStays)
{
    const auto scenario = [] {
        Signals signals;
        ::kill(::getpid(), SIGHUP);
        bool isGood = signals.Wait(60s) == Signals::Event::Reload && signals.Wait(0ms) == Signals::Event::Timeout;
        ::kill(::getpid(), SIGHUP);
        ::kill(::getpid(), SIGTERM);
        isGood = isGood && signals.Wait(60s) == Signals::Event::Stop && signals.Wait(60s) == Signals::Event::Stop;
        ::raise(SIGPIPE);
        ::_exit(isGood ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0), "");
}

TEST(WatchdogDeathTest, EndsTheProcessWhenTheTimeIsUp)
{
    const auto scenario = [] {
        const Watchdog watchdog(10ms, "the test");
        std::promise<void>().get_future().wait_for(60s);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(failed), "the test takes too long");
}

}  // namespace
