// SPDX-License-Identifier: Apache-2.0
#include "tests/module/DetectFixture.h"

namespace {

using testing::IsEmpty;

class BaseSubmoduleTest : public Support::DetectFixture {
protected:
    // The alarm of process 7 of class "c1", its parts that vary by themselves removed.
    Json::Value AlarmOf(const Json::Value& forensic = {}, const Json::Value& file = {})
    {
        world.now += 3;  // past the filter
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

TEST_F(BaseSubmoduleTest, DetailsOfAGoneProcessComeFromTheTable)
{
    const auto details = [this] {
        detector.GetProcessDetailByPid(7, info);
        return std::to_string(info.ppid) + " " + info.processName;
    };
    info.ppid = 5;
    info.processName = "kept";
    EXPECT_EQ(details(), "5 kept");
    world.PutInContainer(6, "c1");
    Receive(Support::Fork(6, "sh", 7));
    Receive(Support::Exec(7, "/bin/x"));
    EXPECT_EQ(details(), "6 /bin/x");
    world.Put(7, {{99, "live"}, "c1", "", {}});
    EXPECT_EQ(details(), "99 live");
}

TEST_F(BaseSubmoduleTest, AnAlarmTellsItsClassItsProcessAndItsContainer)
{
    host.containers["c1"] = {"c1", "web\"\n", "sha256:1", "hub/img:1", {}, {}};
    task->Know(7, "c1");
    world.Put(7, {{3, "evil"}, "c1", "", {}});
    Engine::AlarmClass{"class", "name", 1, 2, 3, 4, 5, 6}.CopyTo(info);
    Json::Value alarm = AlarmOf(detector.MakeForensicInfo("bind"), detector.MakeFileInfo("/f"));
    EXPECT_EQ(alarm["event_id"].asString().size(), 36U);
    alarm.removeMember("event_id");
    EXPECT_EQ(alarm, Parsed(R"({"occur_time": 1700000003, "event_count": 1,
        "event_classid": "class", "event_name": "name", "attack_phase": 1, "attack_tag": 2, "severity": 3,
        "event_category": 4, "event_type": 5, "confidence": 6,
        "detect_module": "containerescape_module", "container_name": "web\"\n", "image_name": "hub/img:1",
        "resource_info": {"container_id": "c1", "image_id": "sha256:1"},
        "process_info": [{"process_pid": 7, "process_name": "evil"}],
        "forensic_info": {"sys_call": "bind"}, "file_info": [{"file_path": "/f"}]})"));
    EXPECT_EQ(info.ppid, 3) << "the record is completed in place";
    detector.Alert(info, {}, {});
    EXPECT_THAT(Alarms(), IsEmpty()) << "merged by the task's filter";
}

TEST_F(BaseSubmoduleTest, AnUnknownProcessIsInItsParentsContainerElseInItsOwnElseInNone)
{
    host.containers = {{"c1", {"c1", "parents", "", "", {}, {}}}, {"c2", {"c2", "own", "", "", {}, {}}}};
    info.ppid = 6;
    const Json::Value none = AlarmOf(Json::Value(Json::objectValue));
    EXPECT_TRUE(none.isMember("resource_info") && none["resource_info"].isNull());
    for (const char* key : {"container_name", "image_name", "forensic_info", "file_info"}) {
        EXPECT_FALSE(none.isMember(key)) << key;
    }
    host.containerOfPid[7] = "c2";
    EXPECT_EQ(AlarmOf()["container_name"], "own");
    host.containerOfPid[6] = "c1";
    EXPECT_EQ(AlarmOf()["container_name"], "parents");
}

}  // namespace
