// SPDX-License-Identifier: Apache-2.0
// The detectors' state machines as scripts. A script's words, in order:
//   a system call    made by the process in turn, which is 1001 at the beginning
//   @1002            from here on that process makes the calls
//   @1002A           the same, and it is known to run in container A
//   +3, -3           seconds by which the wall clock moves; alarms of one name are merged for two
//   exit             the process has gone
//   deinit           the detector's DeInit
// The outcome has a letter for each call: "!" for an alarm, otherwise what HandleEvent returned, "t" or "f".
#include <sstream>

#include "ContainerEscapeUtil.h"
#include "tests/module/DetectFixture.h"

namespace Engine {
namespace {

using testing::ElementsAre;

class DetectorsTest : public Support::DetectFixture {
protected:
    DetectorsTest() { world.Put(1001, {{}, "", "/bin/x", {}}); }  // all that is known of it

    char Call(BaseSubmodule& detector, int pid, const std::string& call)
    {
        const bool result =
            detector.HandleEvent(Support::Syscall(pid, call, ContainerEscapeUtil::GetSyscallNumber(call)).Message());
        const std::vector<Json::Value> alarms = Alarms();
        for (const Json::Value& alarm : alarms) {
            EXPECT_EQ(alarm["process_info"][0]["process_pid"], pid);
            last = alarm;
        }
        return !alarms.empty() ? '!' : result ? 't' : 'f';
    }

    std::string Play(BaseSubmodule& detector, const std::string& script)
    {
        std::string outcome;
        std::istringstream words(script);
        int pid = 1001;
        for (std::string word; words >> word;) {
            if (word[0] == '@') {
                std::size_t digits = 0;
                pid = std::stoi(word.substr(1), &digits);
                if (++digits < word.size()) {
                    task->Know(pid, word.substr(digits));
                }
            } else if (word[0] == '+' || word[0] == '-') {
                world.now += std::stoi(word);
            } else if (word == "exit") {
                detector.HandleProcExit(pid);
            } else if (word == "deinit") {
                detector.DeInit();
            } else {
                outcome += Call(detector, pid, word);
            }
        }
        return outcome;
    }

    // Each row with a detector of its own.
    template <class Detector, class... Args>
    void ExpectOutcomes(std::initializer_list<std::pair<const char*, const char*>> rows, const Args&... args)
    {
        for (const auto& [script, outcome] : rows) {
            Detector detector(*task, host.Metadata(), args...);
            detector.Reconfigure({{}, {"unshare", "waitpid", "setns"}, task->GetScope()});
            EXPECT_EQ(Play(detector, script), outcome) << script;
            task->GetAlarmFilter().Clear();
        }
    }

    std::string LastName() const { return last["process_info"][0]["process_name"].asString(); }

    Json::Value last;  // alarm
};

class ContainerScopeTest : public DetectorsTest {
protected:
    ContainerScopeTest() { task->SetScope(Scope::Container); }
};

TEST_F(DetectorsTest, ShockerIsAListingByAKnownProcessAndThenAnOpeningByHandle)
{
    ExpectOutcomes<ShockerSubmodule>({
        // Whichever call comes first, it only makes the process known.
        {"getdents getdents open_by_handle_at", "tt!"},
        {"open_by_handle_at getdents64 open_by_handle_at", "tt!"},
        {"unshare getdents64 mount getdents open_by_handle_at", "tttt!"},
        {"getdents open_by_handle_at", "tt"},
        {"getdents64 open_by_handle_at open_by_handle_at", "ttt"},
        {"getdents getdents64 open_by_handle open", "tttt"},
        {"read getdents @1002 read open_by_handle_at", "tttt"},
        // Once for each process, until it has gone.
        {"read getdents open_by_handle_at +3 getdents open_by_handle_at", "tt!tt"},
        {"read getdents open_by_handle_at +3 exit read getdents open_by_handle_at", "tt!tt!"},
        {"read getdents exit getdents open_by_handle_at", "tttt"},
        {"read getdents deinit getdents open_by_handle_at", "tttt"},
    });
    EXPECT_EQ(last["file_info"].size(), 1U) << "receivers expect the element, though the handle tells no path";
}

TEST_F(DetectorsTest, DirtyCowWaitsForEachCallInItsTurn)
{
    ExpectOutcomes<DirtyCowSubmodule>(
        {
            {"bind ptrace madvise ptrace accept read +3 accept", "tttt!ff"},
            {"read bind bind madvise write ptrace bind accept", "ttttttt!"},
            {"bind madvise accept ptrace", "tttt"},
            {"bind madvise ptrace accept4 connect @1002 accept", "tttttt"},
            {"bind madvise ptrace accept exit accept +3 bind madvise ptrace accept", "ttt!tttt!"},
            {"bind madvise ptrace deinit accept", "tttt"},
        },
        false);
    EXPECT_EQ(LastName(), "/bin/x");
    ExpectOutcomes<DirtyCowSubmodule>({{"bind madvise ptrace accept", "tttf"}}, true);
}

TEST_F(DetectorsTest, HighRiskIsOneAlarmAnHourForEachListedCallOfAnyProcess)
{
    ExpectOutcomes<HighRiskSyscallSubmodule>(
        {
            {"unshare @1002 +3 unshare setns", "!t!"},
            {"unshar waitpid", "ff"},
            {"unshare +3599 unshare +1 unshare +3599 unshare", "!t!t"},
            {"unshare -3599 unshare -1 unshare", "!t!"},
        },
        std::unordered_set<int>{});
}

TEST_F(DetectorsTest, HighRiskFollowsThePolicysCallsThatHaveAnX8664Number)
{
    HighRiskSyscallSubmodule detector(*task, host.Metadata(), {});
    detector.Reconfigure({{}, {"unshare", "waitpid"}});
    static_cast<Submodule&>(detector).Init();
    EXPECT_THAT(host.TakeJournal(), ElementsAre("syscalls:sys_enter_unshare"));
    EXPECT_EQ(Play(detector, "unshare"), "!");
    detector.Reconfigure({{}, {"unshare"}});
    EXPECT_EQ(Play(detector, "+9 unshare"), "t") << "the hour outlasts a policy";
    detector.Reconfigure({});
    EXPECT_EQ(Play(detector, "unshare deinit"), "f");
    EXPECT_THAT(host.TakeJournal(), ElementsAre("-syscalls:sys_enter_unshare"));
}

TEST_F(DetectorsTest, BruteForceCountsEachProcessByItselfAndOutlivesItsExitButNotDeInit)
{
    BruteforceSubmodule detector(*task, host.Metadata(), std::chrono::seconds{3600}, 2);
    EXPECT_EQ(Play(detector, "open_by_handle_at getdents64 open_by_handle_at @1002 open_by_handle_at open"), "ttttt");
    EXPECT_EQ(Play(detector, "exit open_by_handle_at +3 open_by_handle_at open_by_handle_at"), "!!f");
    EXPECT_EQ(LastName(), "/bin/x");
    EXPECT_EQ(Play(detector, "deinit open_by_handle_at"), "t");
}

// A merged alarm: deinit opens the gate, but the filter still has the alarm before.
TEST_F(ContainerScopeTest, ShockerTakesAContainerAsAWholeAndAlarmsOnceAnHourForEach)
{
    ExpectOutcomes<ShockerSubmodule>({
        {"@1A getdents @2A open_by_handle_at", "t!"},
        {"@3B open_by_handle_at getdents64 open_by_handle_at", "tt!"},
        {"@1A getdents @3B open_by_handle_at", "tt"},
        {"@1A getdents open_by_handle_at @3B getdents open_by_handle_at", "t!t!"},
        {"@1A getdents exit @2A open_by_handle_at +3599 open_by_handle_at +1 open_by_handle_at", "t!t!"},
        {"@1A getdents open_by_handle_at deinit getdents open_by_handle_at +3 open_by_handle_at", "t!tt!"},
        {"@8 getdents @9 open_by_handle_at @8 open_by_handle_at exit open_by_handle_at", "tt!t"},  // in no known one
    });
}

TEST_F(ContainerScopeTest, HighRiskIsOneAlarmAnHourForEachCallAndContainer)
{
    ExpectOutcomes<HighRiskSyscallSubmodule>({{"@1A unshare setns @3B unshare @2A +3 unshare", "!!!t"},
                                              {"@1A unshare +3599 @2A unshare +1 unshare", "!t!"},
                                              {"@8 unshare @9 +3 unshare @1A unshare", "!t!"}},
                                             std::unordered_set<int>{});
}

TEST_F(ContainerScopeTest, BruteForceCountsAContainersThreadsTogether)
{
    ExpectOutcomes<BruteforceSubmodule>(
        {{"@1A open_by_handle_at @2A open_by_handle_at @3B open_by_handle_at @1A open_by_handle_at", "ttt!"},
         {"@1A open_by_handle_at open_by_handle_at open_by_handle_at deinit open_by_handle_at open_by_handle_at "
          "open_by_handle_at +3 open_by_handle_at",
          "tt!ttf!"},
         {"@1A open_by_handle_at open_by_handle_at @2A open_by_handle_at +3599 open_by_handle_at +1 open_by_handle_at",
          "tt!f!"}},
        std::chrono::seconds{3600}, static_cast<unsigned short>(2));
}

TEST_F(ContainerScopeTest, ThousandsOfContainersThatCameAndWentAreForgottenAndOneInUseIsNot)
{
    auto& shocker = task->Attach<ShockerSubmodule>();
    task->Attach<Support::RecordingSubmodule>(host, "a");
    shocker.Reconfigure({{}, {}, Scope::Container});
    EXPECT_EQ(Play(shocker, "@1A getdents"), "t");
    // Every second one has an engine's id, which differs from the others' in some digits.
    const auto idOf = [](int number) {
        const std::string digits = std::to_string(number);
        return number % 2 == 0 ? "short" + digits
                               : std::string(64, 'f').replace(1U + number / 2 % 4 * 16U, digits.size(), digits);
    };
    for (int number = 0; number < 10000; ++number) {
        Play(shocker, "@3" + idOf(number) + " getdents");
        task->Tell(false, {"", 3, -1, "", "", "", ""});
    }
    for (int hour = 0; hour < 3; ++hour) {
        task->ForgetIdleContainers();
        EXPECT_EQ(Play(shocker, "@1A read +3600"), "t");
    }
    EXPECT_EQ(Play(shocker, "@3" + idOf(9999) + " open_by_handle_at @2A open_by_handle_at"), "t!");
    EXPECT_THAT(host.TakeJournal(), testing::SizeIs(10000)) << "each detector forgets each";
}

// Rounds that give idle counters' memory back come in between; they must leave this one's calls alone.
TEST_F(DetectorsTest, BruteForceCountsALongBurstToTheEnd)
{
    SDK::LoggerUtils::GetInstance()->SetLevel("information");
    BruteforceSubmodule detector(*task, host.Metadata(), std::chrono::seconds{3600}, 9000);
    int within = 0;
    for (int call = 0; call < 9010; ++call) {
        within += Call(detector, 1001, "open_by_handle_at") == 't' ? 1 : 0;
    }
    EXPECT_EQ(within, 9000);
}

TEST_F(DetectorsTest, PathIsMountedBelowADestinationOrInAnUnknownContainer)
{
    ShockerSubmodule shocker(*task, host.Metadata());
    host.containers["c1"].mountDestinations = {"/data", "/srv/"};
    EXPECT_TRUE(shocker.IsMounted("c1", "/data/x") && shocker.IsMounted("c1", "/srv/x"));
    EXPECT_FALSE(shocker.IsMounted("c1", "/database") || shocker.IsMounted("c1", "/data"));
    EXPECT_TRUE(shocker.IsMounted("c2", "/database"));
}

}  // namespace
}  // namespace Engine
