// SPDX-License-Identifier: Apache-2.0
// What an operator gets wrong is refused before anything starts because of it, by its name; and the parts of the
// process.
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <sstream>
#include <thread>

#include "host/agent/Agent.h"
#include "host/agent/Console.h"
#include "host/agent/Document.h"
#include "host/agent/EngineOptions.h"
#include "host/agent/Health.h"
#include "host/agent/ImpairmentReport.h"
#include "host/agent/Metrics.h"
#include "host/agent/MetricsAddress.h"
#include "host/agent/Options.h"
#include "host/agent/PolicyFile.h"
#include "host/agent/Signals.h"
#include "host/agent/Status.h"
#include "host/agent/Tune.h"
#include "host/agent/Watchdog.h"
#include "host/sdk/AlarmLatency.h"
#include "host/sdk/Counters.h"
#include "host/sdk/Impairments.h"
#include "host/sdk/Realtime.h"
#include "sdk/JsonUtils.h"
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
    std::vector<std::pair<std::vector<std::string>, std::string>> rows{
        {{}, "no command"},
        {{"start"}, "start"},
        {{"policy"}, "explain?"},
        {{"policy", "show"}, "show"},
        {{"run"}, "--policy is required"},
        {{"run", "--policy", policy, "--log-level", "loud"}, "--log-level: loud"},
        {{"run", "--policy", policy, "--buffer-kb=2"}, "not in range 4"},
        {{"run", "--policy", policy, "--realtime=96"}, "not in range 0"},
        {{"run", "--policy", policy, "--engine", "rkt=/x"}, "rkt=/x: is not docker=PATH, podman=PATH, cri=PATH"},
        {{"run", "--policy", policy, "--engine", "cri=/" + std::string(108, 'x')}, "is not docker=PATH"},
        {{"run", "--policy", policy, "--modules", CE_MODULES, "--engine", "none", "--engine", "cri=/x"}, "no other"},
        {{"run", "--policy", nowhere}, "y: No such file"},
        {{"run", "--policy", policy, "--modules", nowhere}, "module " + nowhere + "/libreport_module.so"},
        {{"run", "--policy", policy, "--modules", CE_MODULES, "--alarms", nowhere}, "alarms file"},
        {{"run", "--policy", policy, "--modules", CE_MODULES, "--stats", nowhere}, "statistics file"},
    };
    const std::string file = directory.Write("file", "");
    const std::string link = directory / "link";
    ASSERT_EQ(::symlink(nowhere.c_str(), link.c_str()), 0);
    for (const auto& [address, reason] :
         std::vector<std::pair<std::string, std::string>>{{"0.0.0.0:9100", "other hosts reach this address"},
                                                          {"[::]:9100", "must be unix:/PATH"},
                                                          {"[::ffff:10.0.0.1]:9100", "other hosts reach this address"},
                                                          {"localhost:9100", "must be unix:/PATH"},
                                                          {"127.0.0.1:0", "must be unix:/PATH"},
                                                          {"127.0.0.1:65536", "must be unix:/PATH"},
                                                          {"9100", "must be unix:/PATH"},
                                                          {"unix:metrics.sock", "must be absolute"},
                                                          {"unix:/" + std::string(107, 'x'), "must be absolute"},
                                                          {"unix:" + nowhere, "No such file"},
                                                          {"unix:" + file, "something else is there"},
                                                          {"unix:" + link, "something else is there"}}) {
        rows.push_back({{"run", "--policy", policy, "--modules", CE_MODULES, "--metrics", address}, reason});
    }
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
        "require-all": true, "namespace-check": false, "log-level": "debug",
        "engine": ["podman=/p", "cri=/c"], "docker-socket": "/d"})";
    const Options options = parse(good, {"--realtime=4"});
    EXPECT_EQ(options.policyFile + ' ' + options.logLevel, "p debug");
    EXPECT_EQ(options.realtimePercent, 4U);
    EXPECT_TRUE(options.requireAll && !options.namespaceCheck);
    EXPECT_EQ(SDK::EngineAddress::Join(EnginesOf(options)), "docker=/d\npodman=/p\ncri=/c\n");
    EXPECT_EQ(SDK::EngineAddress::Join(EnginesOf(parse(good, {"--engine", "docker=/e", "--docker-socket=none"}))),
              "docker=/e\n");
    EXPECT_EQ(EnginesOf(parse("{\"policy\": \"p\"}")).size(), SDK::EngineAddress::Usual().size());
    const std::string shown = ShowValues(options);
    for (const char* line : {"realtime: 4 (command line)\n", "require-all: true (", "agent.json, line 2, column 24)\n",
                             "namespace-check: false (", "syscalls: auto (default)\n", "engine: podman=/p, cri=/c (",
                             "stats: not set (default)\n"}) {
        EXPECT_THAT(shown, HasSubstr(line));
    }
    for (const auto& [text, reason] : std::vector<std::pair<std::string, std::string>>{
             {R"({"polcy": "p"})", R"(agent.json: line 1, column 11: unknown key "polcy", is "policy" meant?)"},
             {R"({"nothing-like-it": 1})", R"(unknown key "nothing-like-it")"},
             {R"({"config": "x"})", R"(unknown key "config")"},
             {R"({"policy": "p", "realtime": 96})", "agent.json, line 1, column 29: --realtime: Value 96 not in range"},
             {R"({"require-all": "yes"})", "require-all: must be true or false, is a text"},
             {R"({"alarms": [1]})", "alarms: must be a text, is a list"},
             {R"({"engine": ["cri=/x", 1]})", "engine: must be a text, is a number"},
             {R"({"engine": ["cri=/x", "x"]})", "agent.json, line 1, column 12: --engine: x: is not"},
             {R"({"alarms": "a", "alarms": "b"})", "not JSON: line 1"},
             {R"({"policy": "p", "show-excepted": true})", "needs --alarm-format envelope or text"},
             {R"({"realtime": 3})", "--policy is required"}}) {
        EXPECT_THAT(([&parse, &text = text] { parse(text); }), ThrowsMessage<BadInput>(HasSubstr(reason))) << text;
    }
}

TEST(ExceptionRulesTest, ABadOneIsRefusedWithItsPlaceAndOneThatCanDoNothingIsNamed)
{
    const auto parse = [](const std::string& list) {
        const Document document(R"({"exceptions": )" + list + "}");
        return ParseExceptions(document, document.Root()["exceptions"]);
    };
    for (const auto& [text, reason] : std::vector<std::pair<std::string, std::string>>{
             {R"({"name": "a"})", "must be a list"},
             {R"([{"image": "nginx"}])", "line 1, column 17: exceptions[0].name: is missing"},
             {R"([{"name": "a b", "image": "nginx"}])", "column 26: exceptions[0].name: must be 1 to 64"},
             {R"([{"name": "a"}])", "image: is missing, as"},
             {R"([{"name": "a", "labels": {"trusted": "yes"}, "executable": "/bin/a"}])", "labels come with any image"},
             {R"([{"name": "a", "image": "*/nginx"}])", "it is no pattern"},
             {R"([{"name": "a", "image": ""}])", "image: is empty"},
             {R"([{"name": "a", "digest": "sha256:12"}])", "64 hexadecimal digits"},
             {R"([{"name": "a", "image": "b", "labels": {"c": 1}}])", "labels.c: must be a text, is a number"},
             {R"([{"name": "a", "image": "b", "executable": "sh"}])", "executable: must be an absolute path"},
             {R"([{"name": "a", "image": "b", "detector": []}])",
              R"(exceptions[0]: unknown key "detector", is "detectors" meant?)"},
             {R"([{"name": "a", "image": "b", "detectors": []}])", "detectors: is empty"},
             {R"([{"name": "a", "image": "b", "detectors": ["Shoker"]}])", R"(no detector, is "Shocker" meant?)"},
             {R"([{"name": "a", "image": "b"}, {"name": "a", "image": "c"}])", "[1].name: another exception has"}}) {
        EXPECT_THAT(([&parse, &text = text] { parse(text); }), ThrowsMessage<BadInput>(HasSubstr(reason))) << text;
    }
    const ExceptionRules rules = parse(R"([{"name": "wide", "image": "docker.io/library/nginx:latest"},
        {"name": "narrow", "image": "nginx", "executable": "/bin/a", "detectors": ["Shocker", "namespace switches"]},
        {"name": "files", "namespace": "prod", "detectors": ["watched directories", "Shocker"]}])");
    Options options;
    options.policyFile = "p";
    Policy policy;
    EXPECT_THAT(
        DoubtsAbout(rules, options, policy),
        testing::ElementsAre(HasSubstr("\"narrow\": can do nothing about namespace switches: --namespace-check"),
                             HasSubstr("\"narrow\": can do nothing: \"wide\" before it"),
                             HasSubstr("\"files\": can do nothing about watched directories: the policy lists"),
                             HasSubstr("in the scope of threads an excepted")));
    policy.isScopeContainer = true;
    EXPECT_EQ(DoubtsAbout({rules.front()}, options, policy).size(), 0U);
}

TEST(TuneTest, EachKindHasTheExceptionThatWouldSilenceItAndHostileLinesAreNamed)
{
    const std::string start = R"({"event_name":"Shocker attack","resource_info":{"container_id":"c"})";
    const auto envelope = [&](const std::string& container, const std::string& exe) {
        return R"({"container":{)" + container + R"(},"process":{"exe":")" + exe + R"("},"alarm":)" + start + "}}\n";
    };
    const std::string known = R"("vouched":true,"image":"shop/web:7","namespace":"prod")";
    std::istringstream alarms(
        envelope(known, "/bin/a") + envelope(known, "/bin/a") + envelope(R"("vouched":true,"image":"old")", "/bin/a") +
        envelope(R"("vouched":true,"image":null,"namespace":null)", "/bin/a") +
        envelope(R"("vouched":false,"image":"old")", "/bin/a") + envelope(R"("vouched":true,"image":"x y")", "/bin/b") +
        envelope(R"("vouched":true,"image":"raw")", R"(/bin/\ufffd)") + start + ",\"image_name\":\"plain\"}\n" +
        R"({"event_name":"Detection impaired"})" + "\n\n[1]\n" + std::string(maxAlarmBytes + 1, '[') + "\n" +
        std::string(maxAlarmBytes, '[') + "\n" + R"({"excepted":"before","alarm":{"event_name":"\u001b[2J"}})");
    SDK::ExceptionRule rule;
    rule.name = "old";
    rule.image = "docker.io/library/old";
    const std::string said = Tune(alarms, {rule});
    EXPECT_THAT(said, testing::StartsWith("10 alarms in 14 lines\n"));
    for (
        const char* part :
        {"\n4 lines are no alarms: line 10, 11, 12, 13\n1 of them excepted by before\n"
         "1 of them excepted by old\n\n2 x Shocker attack, image shop/web:7, program /bin/a\n  would be silenced by\n"
         R"(  {"detectors":["Shocker"],"executable":"/bin/a","image":"shop/web:7","name":"web-7-a-1","namespace":"prod"})",
         "image x y, program /bin/b\n  cannot be silenced: neither its image nor",
         "image unknown, program /bin/a\n  cannot be silenced: neither its image nor",
         "as this one's path cannot be written, by\n  {\"detectors\":[\"Shocker\"],\"image\":\"raw\"",
         "as only envelopes tell of programs, by\n  {\"detectors\":[\"Shocker\"],\"image\":\"plain\"",
         "Detection impaired, image unknown, program unknown\n  cannot be silenced: no exception holds"}) {
        EXPECT_THAT(said, HasSubstr(part));
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

TEST(MetricsListenerDeathTest, WhatAKilledAgentLeftIsReplacedAndAnothersFileIsLeftAlone)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "metrics.sock";
    const std::string address = "unix:" + path;
    const auto listen = [&] {
        MetricsListener listener(address);
        MetricsListener owner;
        owner = std::move(listener);
        return owner;
    };
    listen();
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    const auto endWithoutDestructors = [&] {
        const MetricsListener killed = listen();
        ::_exit(::access(path.c_str(), F_OK) == 0 ? 0 : 1);
    };
    EXPECT_EXIT(endWithoutDestructors(), testing::ExitedWithCode(0), "");
    {
        const MetricsListener next = listen();
        EXPECT_THAT(listen, ThrowsMessage<BadInput>(HasSubstr("something else is there")));
        ASSERT_EQ(::unlink(path.c_str()), 0);
        directory.Write("metrics.sock", "another's");
    }
    EXPECT_EQ(::access(path.c_str(), F_OK), 0);
}

TEST(HealthTest, WhatHappenedIsACauseForAMinuteAndTheEngineOnlyWhereThereIsOne)
{
    using Clock = Health::Clock;
    Health health;
    AgentState state;
    const auto causes = [&](std::chrono::seconds at, const CounterValues& counters) {
        return health.Look(state, counters, {}, Clock::time_point{at});
    };
    EXPECT_THAT(causes(1s, {{"alarms.lost", 0}}), testing::IsEmpty());
    EXPECT_THAT(causes(2s, {{"alarms.lost", 1}}), testing::ElementsAre(HasSubstr("alarms were lost")));
    EXPECT_THAT(causes(61s, {{"alarms.lost", 1}, {"alarms.refused", 7}}), testing::SizeIs(2));
    EXPECT_THAT(causes(63s, {{"alarms.lost", 1}, {"alarms.refused", 7}}),
                testing::ElementsAre(HasSubstr("could not be written")));
    state.engines = {{"docker=/a", 1}, {"cri=/b", 0}};
    EXPECT_THAT(causes(200s, {}), testing::ElementsAre(HasSubstr("engine does not answer: cri=/b")));
    EXPECT_THAT(Health::CausesAt(state, Clock::time_point{200s}), testing::ElementsAre(HasSubstr("starting")));
    state.looked = Clock::time_point{200s};
    EXPECT_THAT(Health::CausesAt(state, Clock::time_point{205s}), testing::IsEmpty());
    EXPECT_THAT(Health::CausesAt(state, Clock::time_point{206s}), testing::ElementsAre(HasSubstr("main thread")));
}

TEST(MetricsTest, NoLabelThatOthersChooseMakesMoreThanItsSeriesOrBreaksALine)
{
    CounterValues counters;
    for (int rule = 1000; rule < 1000 + 3 * static_cast<int>(maxSeries); ++rule) {
        counters["report.excepted." + std::to_string(rule)] = 2;
    }
    AgentState state;
    state.shedBy["a\"} 1\nforged 1"] = 3;
    const std::string text = MetricsText(state, counters);
    std::size_t series = 0;
    for (std::size_t at = 0; (at = text.find("\ncontainerescape_alarms_excepted_total{", at)) != std::string::npos;
         ++at) {
        ++series;
    }
    EXPECT_EQ(series, maxSeries + 1);
    EXPECT_THAT(text, HasSubstr("containerescape_alarms_excepted_total{rule=\"other\"} 200\n"));
    EXPECT_THAT(text, testing::Not(HasSubstr("\nforged")));
}

TEST(StatusTest, TellsTheLatencyThatSoManyAlarmsKeptAndSurvivesAnyDocument)
{
    for (const auto latency : {-1us, 100us, 101us, 200us, 11'000'000us}) {
        SDK::AlarmLatency::Count(latency);
    }
    const Json::Value document = StatusDocument({}, SDK::Counters::Snapshot());
    EXPECT_EQ(document["latency"]["alarms"].asUInt(), 5U);
    EXPECT_EQ(document["latency"]["p50_ms"].asDouble(), 0.25);
    EXPECT_TRUE(document["latency"]["p99_ms"].isNull());
    for (const char* text :
         {"[]", "{}", R"({"counters": [1], "watching": "x", "health": {"causes": {"a": [1]}}})",
          R"({"started": -1e300, "policy": {"sha256": "\u001b[2J\n"}, "warnings": [{}, "\u0007"]})"}) {
        Json::Value odd;
        ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text, std::strlen(text), odd), 0);
        EXPECT_THAT(StatusInWords(odd), testing::AllOf(HasSubstr("NOT GOOD"), testing::Not(HasSubstr("\033"))));
    }
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
