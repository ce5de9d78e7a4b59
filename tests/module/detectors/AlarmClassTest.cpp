// SPDX-License-Identifier: Apache-2.0
// The constants of each detector's alarm, as receivers know them.
#include "BruteforceSubmodule.h"
#include "DirtyCowSubmodule.h"
#include "EscapeFileAccessSubmodule.h"
#include "HighRiskSyscallSubmodule.h"
#include "ShockerSubmodule.h"
#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

// The only alarm since the last one, in short.
class AlarmClassTest : public Support::DetectorTest {
protected:
    std::string Only()
    {
        const std::vector<Json::Value> alarms = Alarms();
        if (alarms.size() != 1) {
            return std::to_string(alarms.size()) + " alarms";
        }
        const Json::Value& alarm = alarms[0];
        std::string text = alarm["event_classid"].asString() + "|" + alarm["event_name"].asString();
        for (const char* key :
             {"attack_phase", "attack_tag", "severity", "event_category", "event_type", "confidence"}) {
            text += " " + std::to_string(alarm[key].asInt());
        }
        return text + "|" + alarm["process_info"][0]["process_name"].asString() + "|" +
               alarm["forensic_info"]["sys_call"].asString() + "|" + alarm["file_info"][0]["file_path"].asString() +
               "|" + std::to_string(alarm["file_info"].size());
    }
};

// The process has gone but for its executable, which some of the detectors look up by themselves.
TEST_F(AlarmClassTest, EachDetectorHasItsOwn)
{
    struct : Support::FakeSystem {
        int Status(int /*pid*/, SDK::ProcessUtils::procStatus& /*status*/) override { return -1; }
    } gone;
    gone.Put(unknown, {{}, "c1", "/bin/x", {}});
    BaseSubmodule* detector = &Attach<BruteforceSubmodule>(*task, collector, std::chrono::duration<long>{3600},
                                                           static_cast<unsigned short>(1));
    const auto call = [&](std::initializer_list<const char*> names) {
        for (const char* name : names) {
            detector->HandleEvent(Entry(unknown, name).Message());
        }
    };
    call({"open_by_handle_at", "open_by_handle_at"});
    EXPECT_EQ(Only(), "containerescape_0005|Bruteforce syscall attack 4 4 3 2000 2042 60|/bin/x|open_by_handle_at||0");
    detector = &Attach<DirtyCowSubmodule>(*task, collector, false);
    call({"bind", "madvise", "ptrace", "accept"});
    EXPECT_EQ(Only(), "containerescape_0003|DirtyCow attack 4 4 3 2000 2042 60|/bin/x|accept||0");
    detector = &Attach<ShockerSubmodule>(*task, collector);
    call({"getdents", "getdents", "open_by_handle_at"});
    EXPECT_EQ(Only(), "containerescape_0002|Shocker attack 4 4 3 2000 2042 60||open_by_handle_at||1");
    detector = &Attach<HighRiskSyscallSubmodule>(*task, collector, std::unordered_set<int>{});
    detector->Reconfigure({{}, {"mount"}});
    call({"mount"});
    EXPECT_EQ(Only(), "containerescape_0001|High-Risk System Invocation 6 4 3 3000 3016 80||mount||0");

    detector = &Attach<EscapeFileAccessSubmodule>(*task, collector);
    FileNotifyMessage access(1, "/etc/shadow", 2);
    access.SetProcess(unknown, "cat");
    EXPECT_EQ(detector->HandleFileNotifyMsg(&access), -1);
    EXPECT_EQ(Only(), "containerescape_0004|Container file escape attack 4 2 3 2000 2044 80|||/etc/shadow|1");
    EXPECT_EQ(detector->HandleFileNotifyMsg(&access), -1);
    EXPECT_EQ(Only(), "0 alarms") << "merged by the task's filter";
}

}  // namespace
}  // namespace Engine
