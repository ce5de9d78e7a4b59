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
    world.PutInContainer(9, "");
    EXPECT_EQ(Receive(Support::Fork(9, "init", 10)), -1);
    EXPECT_THAT(task->Procs(), IsEmpty());

    world.PutInContainer(10, "c1");
    EXPECT_EQ(Receive(Support::Fork(10, "runner", 11)), 0);
    ExpectRecord(10, {-1, 10, "", "", "c1", 0});  // new, so without its name
    ExpectRecord(11, {10, 11, "runner", "", "c1", 0});

    Receive(Support::Exec(11, "/bin/tool"));
    world.PutInContainer(10, "c2");
    EXPECT_EQ(Receive(Support::Fork(10, "renamed", 11)), 0);
    ExpectRecord(10, {-1, 10, "renamed", "", "c2", 0});
    ExpectRecord(11, {10, 11, "renamed", "", "c2", 0});
}

TEST_F(ProcTableTest, AnExitIsMarkedANoticeNeverOverwritesAndErasesAtOnce)
{
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    *info = {"c1", 7, 3, "/bin/sh", "sh", "", "img"};
    task->Receive(Engine::ContainerProcMessage(true, info));
    Know(7, "second");
    EXPECT_EQ(Receive(Support::Exit(8)), -1);
    EXPECT_EQ(Receive(Support::Exec(8, "/bin/x")), -1);
    EXPECT_EQ(Receive(Support::Exit(7)), 0);
    EXPECT_THAT(task->Procs(), SizeIs(1));
    ExpectRecord(7, {3, 7, "sh", "/bin/sh", "c1", world.now});
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
}

TEST_F(ProcTableTest, ANoticeForAFullTablePrunesToo)
{
    for (int pid = 1000; pid < 1642; ++pid) {
        Know(pid);
    }
    EXPECT_THAT(task->Procs(), ElementsAre(Key(1641)));
}

}  // namespace
