// SPDX-License-Identifier: Apache-2.0
#include "BaseSubmodule.h"

#include "RecordingSubmodule.h"
#include "tests/support/DetectTaskFixture.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class BaseSubmoduleTest : public Support::DetectTaskFixture {
protected:
    void SetUp() override
    {
        DetectTaskFixture::SetUp();
        detector = &Attach<Support::RecordingSubmodule>(*task, "d", collector, journal);
        info.pid = 7;
    }

    // What an alarm of process 7 looked like.
    Json::Value AlarmOf(const Json::Value& forensic = {}, const Json::Value& file = {})
    {
        detector->Alert(info, forensic, file);
        auto alarms = Alarms();
        EXPECT_THAT(alarms, SizeIs(1));
        return alarms.empty() ? Json::Value{} : alarms[0];
    }

    Support::RecordingSubmodule::Journal journal;
    Support::RecordingSubmodule* detector = nullptr;
    Engine::AlertInfo info;
};

TEST_F(BaseSubmoduleTest, InitWatchesFilesAndEntriesOfSystemCallsAndDeInitEndsThat)
{
    detector->Init({"bind", "open_by_handle_at"}, {"/etc*/*rw"});
    EXPECT_THAT(TraceWatches(),
                UnorderedElementsAre("syscalls:sys_enter_bind", "syscalls:sys_enter_open_by_handle_at"));
    auto watches = Taken(*files, files->watches);
    ASSERT_THAT(watches, SizeIs(1));
    EXPECT_TRUE(watches[0].watch && watches[0].path == "/etc*/*rw" && watches[0].requester == task.get());
    EXPECT_THAT(watches[0].eventMasks, ElementsAre(2U, 8U));
    const _FileNotifyOpt& options = watches[0].options;
    EXPECT_TRUE(options.notifyOnly && !options.mount && !options.keepOrder && !options.permission);

    for (const std::size_t withdrawnEvents : {2U, 0U}) {  // the sets stay, so the file goes twice
        detector->DeInit();
        EXPECT_THAT(TraceWatches(), SizeIs(withdrawnEvents));
        watches = Taken(*files, files->watches);
        ASSERT_THAT(watches, SizeIs(1));
        EXPECT_FALSE(watches[0].watch);
    }
}

TEST_F(BaseSubmoduleTest, TheSystemCallsNameBeginsSevenAfterTheFirstCharacterOfTheKey)
{
    using Engine::BaseSubmodule;
    for (const auto& [event, name] : std::map<std::string, std::string>{
             {"syscalls:sys_enter_openat", "openat"}, {"abcdfghij", "hij"}, {"xe234567", ""}, {"abcdfg", ""}}) {
        EXPECT_EQ(BaseSubmodule::ParseFtraceSyscallName(event), name) << event;
        EXPECT_EQ(BaseSubmodule::FtraceSyscallNameView(event), name) << event;
    }
    EXPECT_THROW(BaseSubmodule::ParseFtraceSyscallName("abc"), std::out_of_range);
    EXPECT_THROW(BaseSubmodule::FtraceSyscallNameView("enter_"), std::out_of_range);
}

TEST_F(BaseSubmoduleTest, DetailsOfAGoneProcessComeFromTheTable)
{
    info.ppid = 5;
    info.processName = "kept";
    detector->GetProcessDetailByPid(7, info);
    EXPECT_TRUE(info.ppid == 5 && info.processName == "kept");
    world.PutInContainer(6, "c1");
    task->Receive(Support::Fork(6, "sh", 7).Message());
    task->Receive(Support::Exec(7, "/bin/x").Message());
    detector->GetProcessDetailByPid(7, info);
    EXPECT_TRUE(info.ppid == 6 && info.processName == "/bin/x");
    world.Put(7, {{99, "live"}, "c1", "", {}});
    detector->GetProcessDetailByPid(7, info);
    EXPECT_TRUE(info.ppid == 99 && info.processName == "live");
}

TEST_F(BaseSubmoduleTest, AnAlarmNamesTheContainerOfAKnownProcess)
{
    collector->Put({"c1", "web\"\n", "sha256:1", "hub/img:1", {}, {}});
    Know(7, "c1");
    world.Put(7, {{3, "evil"}, "c1", "", {}});
    Json::Value alarm = AlarmOf(detector->MakeForensicInfo("bind"), detector->MakeFileInfo("/f"));
    EXPECT_EQ(alarm["event_id"].asString().size(), 36U);
    for (const char* key : {"event_id", "event_classid", "event_name", "event_category", "event_type", "severity",
                            "attack_phase", "attack_tag", "confidence"}) {
        EXPECT_TRUE(alarm.removeMember(key, nullptr)) << key;  // the detectors' own
    }
    Json::Value expected;
    const std::string text = R"({"occur_time": 1700000000, "event_count": 1,
        "detect_module": "containerescape_module", "container_name": "web\"\n", "image_name": "hub/img:1",
        "resource_info": {"container_id": "c1", "image_id": "sha256:1"},
        "process_info": [{"process_pid": 7, "process_name": "evil"}],
        "forensic_info": {"sys_call": "bind"}, "file_info": [{"file_path": "/f"}]})";
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), expected), 0);
    EXPECT_EQ(alarm, expected);
    EXPECT_TRUE(info.ppid == 3 && info.processName == "evil") << "the record is completed in place";
}

TEST_F(BaseSubmoduleTest, AnUnknownProcessIsInItsParentsContainerElseInItsOwnElseInNone)
{
    collector->Put({"c1", "parents", "", "", {}, {}});
    collector->Put({"c2", "own", "", "", {}, {}});
    info.ppid = 6;
    const Json::Value none = AlarmOf(Json::Value(Json::objectValue));
    EXPECT_TRUE(none.isMember("resource_info") && none["resource_info"].isNull());
    for (const char* key : {"container_name", "image_name", "forensic_info", "file_info"}) {
        EXPECT_FALSE(none.isMember(key)) << key;
    }
    collector->PutPid(7, "c2");
    world.now += 3;
    EXPECT_EQ(AlarmOf()["container_name"], "own");
    collector->PutPid(6, "c1");
    world.now += 3;
    EXPECT_EQ(AlarmOf()["container_name"], "parents");
}

TEST_F(BaseSubmoduleTest, AMergedAlarmWasStillBuiltAndLogged)
{
    AlarmOf();
    logs.Clear();
    detector->Alert(info, {}, {});
    EXPECT_THAT(Alarms(), testing::IsEmpty());
    const auto lines = logs.From("BaseSubmodule");
    ASSERT_FALSE(lines.empty());
    EXPECT_THAT(lines.back().text, testing::StartsWith("Alert msgid='2' msg='{"));
    EXPECT_TRUE(lines.back().line == 97 && lines.back().logger == logs.ModuleName());
    const auto merged = logs.With("container_escape_detect_task a msg is merged:");
    ASSERT_THAT(merged, SizeIs(1));
    EXPECT_EQ(merged[0].logger, logs.RootName());
}

}  // namespace
