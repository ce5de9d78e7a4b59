// SPDX-License-Identifier: Apache-2.0
#include "tests/support/DetectTaskFixture.h"

namespace {

using Record = Engine::ContainerEscapeDetectTask::escapeProcRecord;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;

class ProcTableTest : public Support::DetectTaskFixture {
protected:
    static auto Tie(const Record& record)
    {
        return std::tie(record.ppid, record.pid, record.name, record.exeName, record.containerId, record.exitTime);
    }
    void ExpectRecord(int pid, const Record& expected)
    {
        const auto found = task->Procs().find(pid);
        ASSERT_NE(found, task->Procs().end()) << pid;
        EXPECT_EQ(Tie(found->second), Tie(expected)) << pid;
    }
    int Receive(const Support::TraceEvent& event) { return task->Receive(event.Message()); }
};

TEST_F(ProcTableTest, AForkInAContainerRecordsParentAndChild)
{
    world.PutInContainer(10, "c1");
    EXPECT_EQ(Receive(Support::Fork(10, "runner", 11)), 0);
    ExpectRecord(10, {-1, 10, "", "", "c1", 0});
    ExpectRecord(11, {10, 11, "runner", "", "c1", 0});

    Receive(Support::Exec(11, "/bin/tool"));
    world.PutInContainer(10, "c2");
    EXPECT_EQ(Receive(Support::Fork(10, "renamed", 11)), 0);
    ExpectRecord(10, {-1, 10, "renamed", "", "c2", 0});
    ExpectRecord(11, {10, 11, "renamed", "", "c2", 0});
}

TEST_F(ProcTableTest, AForkOutsideOfContainersIsNotRecorded)
{
    world.PutInContainer(10, "");
    int ppid = 0;
    for (const int parent : {10, 99}) {
        EXPECT_EQ(task->CreateProcess("", Support::Fork(parent, "init", 11).Message(), ppid), -1);
        EXPECT_EQ(ppid, parent);
    }
    EXPECT_THAT(task->Procs(), IsEmpty());
}

TEST_F(ProcTableTest, ExecNamesTheExecutableOfAKnownProcessOnly)
{
    Know(7);
    int pid = 0;
    EXPECT_EQ(task->AddProcessInfo("", Support::Exec(8, "/bin/x").Message(), pid), -1);
    EXPECT_EQ(pid, 8);
    EXPECT_EQ(Receive(Support::Exec(7, "/bin/x")), 0);
    ExpectRecord(7, {-1, 7, "", "/bin/x", "c1", 0});
    EXPECT_THAT(task->Procs(), SizeIs(1));
}

TEST_F(ProcTableTest, AnExitIsMarkedAndCanStillBeLookedUp)
{
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    *info = {"c1", 7, 3, "/bin/sh", "sh", "", "img"};
    task->Receive(Engine::ContainerProcMessage(true, info));
    ExpectRecord(7, {3, 7, "sh", "/bin/sh", "c1", 0});
    EXPECT_EQ(Receive(Support::Exit(7)), 0);
    EXPECT_EQ(Receive(Support::Exit(8)), -1);
    ExpectRecord(7, {3, 7, "sh", "/bin/sh", "c1", world.now});

    int ppid = 0;
    std::string exe = "kept";
    std::string container = "kept";
    EXPECT_EQ(task->GetPPIDByRecordMap(8, ppid), -1);
    EXPECT_EQ(task->GetContainerIDByRecordMap(8, container), -1);
    task->GetExeNameByRecordMap(8, exe);
    EXPECT_TRUE(ppid == 0 && exe == "kept" && container == "kept");
    EXPECT_EQ(task->GetPPIDByRecordMap(7, ppid), 0);
    EXPECT_EQ(task->GetContainerIDByRecordMap(7, container), 0);
    task->GetExeNameByRecordMap(7, exe);
    EXPECT_TRUE(ppid == 3 && exe == "/bin/sh" && container == "c1");
}

TEST_F(ProcTableTest, NoticesNeverOverwriteAndEraseAtOnce)
{
    Know(7, "first");
    Know(7, "second");
    ExpectRecord(7, {-1, 7, "", "", "first", 0});
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    info->pid = 7;
    task->Receive(Engine::ContainerProcMessage(false, info));
    EXPECT_THAT(task->Procs(), IsEmpty());
}

TEST_F(ProcTableTest, AFullTableIsPrunedBeforeTheParentGoesIn)
{
    for (int pid = 1000; pid < 1641; ++pid) {
        Know(pid);
    }
    EXPECT_THAT(task->Procs(), SizeIs(641)) << "641 fit: the check is made before the insertion";
    Receive(Support::Exit(1000));
    world.now += 1;
    Receive(Support::Exit(1001));
    world.now += 2;

    world.PutInContainer(1002, "c9");
    EXPECT_EQ(Receive(Support::Fork(1002, "p", 5)), 0);
    EXPECT_THAT(task->Procs(), ElementsAre(Key(5), Key(1001), Key(1002)));
    ExpectRecord(1002, {-1, 1002, "", "", "c9", 0});  // forgotten, then new: without its name
    EXPECT_THAT(logs.Texts(Poco::Message::PRIO_INFORMATION),
                ElementsAre(" exceed max monitor proc (641), clear proc by alive time."));
}

TEST_F(ProcTableTest, ANoticeForAFullTablePrunesToo)
{
    for (int pid = 1000; pid < 1642; ++pid) {
        Know(pid);
    }
    EXPECT_THAT(task->Procs(), ElementsAre(Key(1641)));
}

TEST_F(ProcTableTest, TheStandAloneCheckShowsTheCgroupAndAsksTheSystem)
{
    world.PutInContainer(7, "c1");
    std::string id;
    EXPECT_EQ(task->IsContainerProc(7, id), 0);
    EXPECT_EQ(id, "c1");
    EXPECT_EQ(task->IsContainerProc(8, id), -1);
    EXPECT_THAT(logs.With("=============================pid = 7============================"), SizeIs(2));
}

}  // namespace
