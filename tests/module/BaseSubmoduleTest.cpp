// SPDX-License-Identifier: Apache-2.0
#include "BaseSubmodule.h"

#include "RecordingSubmodule.h"
#include "tests/support/DetectTaskFixture.h"

namespace {

using Poco::Message;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class BaseSubmoduleTest : public Support::DetectTaskFixture {
protected:
    void SetUp() override
    {
        DetectTaskFixture::SetUp();
        detector = &Attach<Support::RecordingSubmodule>(*task, "d", collector, journal);
    }

    // What an alarm of process 7 looked like, and what was left in the record.
    Json::Value AlarmOf(const Json::Value& forensic = {}, const Json::Value& file = {})
    {
        info.eventName = "Name";
        info.classId = "class_1";
        info.pid = 7;
        detector->Alert(info, forensic, file);
        auto alarms = Alarms();
        EXPECT_THAT(alarms, SizeIs(1));
        return alarms.empty() ? Json::Value{} : alarms[0];
    }

    // The detectors' lines as "priority line text".
    std::vector<std::string> Lines() const
    {
        std::vector<std::string> lines;
        for (const Support::LogRecord& record : logs.From("BaseSubmodule")) {
            EXPECT_EQ(record.logger, logs.ModuleName());
            lines.push_back(std::to_string(record.priority) + " " + std::to_string(record.line) + " " + record.text);
        }
        return lines;
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
    EXPECT_TRUE(options.notifyOnly);
    EXPECT_FALSE(options.mount || options.keepOrder || options.permission || options.ownAccesses);

    for (const std::size_t withdrawnEvents : {2U, 0U}) {  // the sets stay, so the file goes twice
        detector->DeInit();
        EXPECT_THAT(TraceWatches(), SizeIs(withdrawnEvents));
        watches = Taken(*files, files->watches);
        ASSERT_THAT(watches, SizeIs(1));
        EXPECT_FALSE(watches[0].watch);
    }
}

TEST_F(BaseSubmoduleTest, EmptySetsSendNothing)
{
    detector->Init({}, {});
    detector->DeInit();
    EXPECT_THAT(TraceWatches(), IsEmpty());
    EXPECT_THAT(Taken(*files, files->watches), IsEmpty());
}

TEST_F(BaseSubmoduleTest, TheSystemCallsNameBeginsSevenAfterTheFirstCharacterOfTheKey)
{
    using Engine::BaseSubmodule;
    struct Row {
        const char* event;
        const char* name;
    };
    constexpr Row rows[] = {{"sys_enter_openat", "openat"},
                            {"syscalls:sys_enter_open_by_handle_at", "open_by_handle_at"},
                            {"abcdfghij", "hij"},
                            {"xe234567", ""},
                            {"abcdfg", ""}};
    for (const Row& row : rows) {
        EXPECT_EQ(BaseSubmodule::ParseFtraceSyscallName(row.event), row.name) << row.event;
        EXPECT_EQ(BaseSubmodule::FtraceSyscallNameView(row.event), row.name) << row.event;
    }
    EXPECT_THROW(BaseSubmodule::ParseFtraceSyscallName("abc"), std::out_of_range);
    EXPECT_THROW(BaseSubmodule::FtraceSyscallNameView("enter_"), std::out_of_range);
}

TEST_F(BaseSubmoduleTest, MessagesBecomeDetectorCalls)
{
    const Support::TraceEvent event = Support::Syscall(7, "bind").Number("comm_pid", 3);
    EXPECT_EQ(detector->Receive(event.Message()), 0);
    auto process = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    process->pid = 7;
    for (const bool started : {true, false}) {
        EXPECT_EQ(detector->Receive(Engine::ContainerProcMessage(started, process)), 0);
    }
    EXPECT_THAT(journal, ElementsAre("d syscalls:sys_enter_bind", "d fork 7", "d exit 7"));
    EXPECT_THAT(Lines(), ElementsAre("7 127 [BaseMod] Receive ftrace msg: [syscalls:sys_enter_bind]:3",
                                     "8 204 received new process state: pid=7, started=1",
                                     "8 204 received new process state: pid=7, started=0"));
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
    info.confidence = 80;
    info.attackPhase = 6;
    info.attackTag = 4;
    info.severity = 3;
    info.eventCategory = 3000;
    info.eventType = 3016;
    Json::Value alarm = AlarmOf(detector->MakeForensicInfo("bind"), detector->MakeFileInfo("/f"));
    EXPECT_THAT(collector->askedPids, IsEmpty());
    EXPECT_EQ(alarm["event_id"].asString().size(), 36U);
    alarm.removeMember("event_id");

    Json::Value expected;
    const std::string text = R"({"occur_time": 1700000000, "event_count": 1,
        "detect_module": "containerescape_module", "event_classid": "class_1", "event_category": 3000,
        "event_type": 3016, "severity": 3, "attack_phase": 6, "attack_tag": 4, "event_name": "Name", "confidence": 80,
        "container_name": "web\"\n", "image_name": "hub/img:1",
        "resource_info": {"container_id": "c1", "image_id": "sha256:1"},
        "process_info": [{"process_pid": 7, "process_name": "evil"}],
        "forensic_info": {"sys_call": "bind"}, "file_info": [{"file_path": "/f"}]})";
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), expected), 0);
    EXPECT_EQ(alarm, expected);
    EXPECT_TRUE(info.ppid == 3 && info.processName == "evil") << "the record is completed in place";
}

TEST_F(BaseSubmoduleTest, AnUnknownProcessIsInItsParentsContainerElseInItsOwn)
{
    collector->Put({"c1", "parents", "", "", {}, {}});
    collector->Put({"c2", "own", "", "", {}, {}});
    collector->PutPid(7, "c2");
    info.ppid = 6;
    EXPECT_EQ(AlarmOf()["container_name"], "own");
    EXPECT_THAT(collector->askedPids, ElementsAre(6, 7));
    EXPECT_THAT(Lines(), testing::Contains("7 68 set container id c2"));

    collector->PutPid(6, "c1");
    world.now += 3;
    EXPECT_EQ(AlarmOf()["resource_info"]["container_id"], "c1");
}

TEST_F(BaseSubmoduleTest, AHostProcessHasNoContainerKeysAndANullResource)
{
    info.ppid = 6;
    const Json::Value alarm = AlarmOf(Json::Value(Json::objectValue));
    EXPECT_TRUE(alarm.isMember("resource_info") && alarm["resource_info"].isNull());
    for (const char* key : {"container_name", "image_name", "forensic_info", "file_info"}) {
        EXPECT_FALSE(alarm.isMember(key)) << key;
    }
    const auto lines = Lines();
    ASSERT_THAT(lines, SizeIs(3));
    EXPECT_EQ(lines[0], "7 72 can not get container info for the parent process 6 by metainfo.");
    EXPECT_EQ(lines[1], "7 82 containerid is empty or can not get the container info ");
    EXPECT_THAT(lines[2], testing::StartsWith("7 97 Alert msgid='2' msg='{"));
}

TEST_F(BaseSubmoduleTest, AMergedAlarmWasStillBuiltAndLogged)
{
    AlarmOf();
    logs.Clear();
    detector->Alert(info, {}, {});
    EXPECT_THAT(Alarms(), IsEmpty());
    EXPECT_THAT(Lines(), testing::Contains(testing::StartsWith("7 97 Alert msgid='2'")));
    EXPECT_THAT(logs.With("container_escape_detect_task a msg is merged:"), SizeIs(1));
    EXPECT_THAT(logs.From("ModuleUtils"), IsEmpty());
}

}  // namespace
