// SPDX-License-Identifier: Apache-2.0
#include "tests/module/DetectFixture.h"

namespace {

class BaseSubmoduleTest : public Support::DetectFixture {
protected:
    // The alarm of process 7. Null: merged.
    Json::Value AlarmOf(const Json::Value& forensic = {}, const Json::Value& file = {})
    {
        info.pid = 7;
        detector.Alert(info, forensic, file);
        std::vector<Json::Value> alarms = Alarms();
        alarms.resize(1);
        return alarms[0];
    }

    Support::RecordingSubmodule& detector = task->Attach<Support::RecordingSubmodule>(host, "d");
    Engine::AlertInfo info;
};

TEST_F(BaseSubmoduleTest, TheSystemCallsNameBeginsSevenAfterTheFirstCharacterOfTheKey)
{
    using Engine::BaseSubmodule;
    for (const auto& [event, name] : std::map<std::string, std::string>{
             {"syscalls:sys_enter_openat", "openat"}, {"abcdfghij", "hij"}, {"xe234567", ""}, {"abcdfg", ""}}) {
        EXPECT_EQ(BaseSubmodule::ParseFtraceSyscallName(event), name) << event;
    }
    EXPECT_THROW(BaseSubmodule::ParseFtraceSyscallName("abc"), std::out_of_range);
    EXPECT_THROW(BaseSubmodule::FtraceSyscallNameView("enter_"), std::out_of_range);
}

TEST_F(BaseSubmoduleTest, AnAlarmTellsItsClassItsProcessAndItsContainer)
{
    host.containers["c1"] = {"c1", "web\"\n", "sha256:1", "hub/img:1", {}, {}};
    task->Know(7);
    Engine::AlarmClass{"class", "name", 1, 2, 3, 4, 5, 6}.CopyTo(info);
    Json::Value alarm = AlarmOf(detector.MakeForensicInfo("bind"), detector.MakeFileInfo("/f"));
    EXPECT_EQ(alarm["event_id"].asString().size(), 36U);
    alarm.removeMember("event_id");
    EXPECT_EQ(alarm, Parsed(R"({"occur_time": 1700000000, "event_count": 1,
        "event_classid": "class", "event_name": "name", "attack_phase": 1, "attack_tag": 2, "severity": 3,
        "event_category": 4, "event_type": 5, "confidence": 6,
        "detect_module": "containerescape_module", "container_name": "web\"\n", "image_name": "hub/img:1",
        "resource_info": {"container_id": "c1", "image_id": "sha256:1"},
        "process_info": [{"process_pid": 7, "process_name": "/bin/x"}],
        "forensic_info": {"sys_call": "bind"}, "file_info": [{"file_path": "/f"}]})"));
    EXPECT_TRUE(AlarmOf().isNull()) << "merged by the task's filter";
}

TEST_F(BaseSubmoduleTest, AnUnknownProcessIsInItsParentsContainerElseInItsOwnElseInNone)
{
    host.containers = {{"c1", {"c1", "parents", "", "", {}, {}}}, {"c2", {"c2", "own", "", "", {}, {}}}};
    info.processName = "kept";
    const Json::Value none = AlarmOf(Json::Value(Json::objectValue));
    EXPECT_EQ(none.getMemberNames().size(), 14U) << "no container, image, call or file";
    EXPECT_TRUE(none["resource_info"].isNull());
    EXPECT_EQ(none["process_info"][0]["process_name"], "kept");
    world.now += 3;  // past the filter
    world.Put(7, {{6, "live"}, "c2", "", {}});
    const Json::Value own = AlarmOf();
    EXPECT_EQ(own["container_name"], "own");
    EXPECT_EQ(own["process_info"][0]["process_name"], "live");
    world.now += 3;
    world.PutInContainer(6, "c1");
    EXPECT_EQ(AlarmOf()["container_name"], "parents");
}

}  // namespace
