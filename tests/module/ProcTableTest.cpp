// SPDX-License-Identifier: Apache-2.0
#include "tests/module/DetectFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;

class ProcTableTest : public Support::DetectFixture {
protected:
    // "parent pid name executable container exit-time", an empty text as "-".
    std::string Record(int pid)
    {
        const auto found = task->Procs().find(pid);
        if (found == task->Procs().end()) {
            return "none";
        }
        const auto& record = found->second;
        std::string line = std::to_string(record.ppid) + " " + std::to_string(record.pid);
        for (const std::string& text : {record.name, record.exeName, record.containerId}) {
            line += " " + (text.empty() ? "-" : text);
        }
        return line + " " + std::to_string(record.exitTime);
    }
};

TEST_F(ProcTableTest, AForkInAContainerRecordsParentAndChild)
{
    world.PutInContainer(9, "");
    EXPECT_EQ(Receive(Support::Fork(9, "init", 10)), -1);
    EXPECT_THAT(task->Procs(), IsEmpty());

    world.PutInContainer(10, "c1");
    EXPECT_EQ(Receive(Support::Fork(10, "runner", 11)), 0);
    EXPECT_EQ(Record(10), "-1 10 - - c1 0") << "new, so without its name";
    EXPECT_EQ(Record(11), "10 11 runner - c1 0");

    Receive(Support::Exec(11, "/bin/tool"));
    EXPECT_EQ(Record(11), "10 11 runner /bin/tool c1 0");
    world.PutInContainer(10, "c2");
    EXPECT_EQ(Receive(Support::Fork(10, "renamed", 11)), 0);
    EXPECT_EQ(Record(10), "-1 10 renamed - c2 0");
    EXPECT_EQ(Record(11), "10 11 renamed - c2 0") << "the id was used again";
}

TEST_F(ProcTableTest, AnExitIsMarkedANoticeNeverOverwritesAndErasesAtOnce)
{
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    *info = {"c1", 7, 3, "/bin/sh", "sh", "", "img"};
    task->CreateProcessByContainerMsg({true, info});
    task->Know(7, "second");
    EXPECT_EQ(Receive(Support::Exit(8)), -1);
    EXPECT_EQ(Receive(Support::Exec(8, "/bin/x")), -1);
    EXPECT_EQ(Receive(Support::Exit(7)), 0);
    EXPECT_EQ(Record(7), "3 7 sh /bin/sh c1 " + std::to_string(world.now));
    task->RemoveProcessByContainerMsg({false, info});
    EXPECT_THAT(task->Procs(), IsEmpty());
}

TEST_F(ProcTableTest, AFullTableIsPrunedBeforeTheParentGoesIn)
{
    for (int pid = 1000; pid <= 1640; ++pid) {
        task->Know(pid);
    }
    EXPECT_THAT(task->Procs(), SizeIs(641)) << "641 fit: the check is made before the insertion";
    Receive(Support::Exit(1000));
    world.now += 1;
    Receive(Support::Exit(1001));
    world.now += 2;

    world.PutInContainer(1002, "c9");
    EXPECT_EQ(Receive(Support::Fork(1002, "p", 5)), 0);
    EXPECT_THAT(task->Procs(), ElementsAre(Key(5), Key(1001), Key(1002)));
    EXPECT_EQ(Record(1002), "-1 1002 - - c9 0") << "forgotten, then new: without its name";

    world.now += 9;
    for (int pid = 2000; pid <= 2638; ++pid) {
        task->Know(pid);
    }
    EXPECT_THAT(task->Procs(), ElementsAre(Key(2638))) << "a notice for a full table prunes, too";
}

}  // namespace
