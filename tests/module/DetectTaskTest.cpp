// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeFeaturePolicy.h"
#include "tests/module/DetectFixture.h"

namespace {

using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;

class DetectTaskTest : public Support::DetectFixture {
protected:
    DetectTaskTest()
    {
        feature.Parse(R"({"content": {"image_white_namelist": ["nginx", "redis:7"], "container_escape_detect_task":
            {"highrisk_calls": ["bind"], "host_directorys": ["/"]}}})");
        task->featurePolicy.Set(&feature);
        task->taskPolicy.Set(feature.Find("container_escape_detect_task"));
        task->Attach<Support::RecordingSubmodule>(host, "a");
        task->Attach<Support::RecordingSubmodule>(host, "b");
    }
    int Access(int pid)
    {
        Engine::FileNotifyMessage message(3, "/f", 2);
        message.SetProcess(static_cast<unsigned int>(pid), "x");
        return task->FileNotifyMessageAction(&message);
    }

    Engine::ContainerEscapeFeaturePolicy feature;
};

TEST_F(DetectTaskTest, StartSubscribesThenStartsTheDetectorsInOrderAndStopUndoesItAll)
{
    EXPECT_EQ(task->Init(), 0);
    EXPECT_THAT(host.TakeJournal(),
                ElementsAre("notices", "notices", "sched:sched_process_exit", "sched:sched_process_fork",
                            "sched:sched_process_exec", "a reconfigure 1", "a init", "b reconfigure 1", "b init"));
    task->GetAlarmFilter().CheckAndEnqueue("pending", "");
    EXPECT_EQ(task->UnInit(), 0);
    EXPECT_THAT(task->GetAlarmFilter().Cache(), IsEmpty());
    EXPECT_THAT(host.TakeJournal(), ElementsAre("-notices", "-sched:sched_process_exit", "-sched:sched_process_fork",
                                                "-sched:sched_process_exec", "a deinit", "b deinit"));
}

TEST_F(DetectTaskTest, SystemCallsOfKnownProcessesReachTheDetectorsInOrder)
{
    EXPECT_EQ(Receive(Support::Syscall(7, "bind")), -1);
    task->Know(7);
    EXPECT_THAT(host.TakeJournal(), IsEmpty());
    EXPECT_EQ(Receive(Support::Syscall(7, "bind")), 0);
    EXPECT_THAT(host.TakeJournal(), ElementsAre("a syscalls:sys_enter_bind", "b syscalls:sys_enter_bind"));
}

TEST_F(DetectTaskTest, DetectorsForgetAnIdThatExitsOrIsForkedAndNoneForANotice)
{
    Receive(Support::Exit(7));
    world.PutInContainer(7, "c1");
    Receive(Support::Fork(7, "sh", 8));
    Receive(Support::Fork(9, "sh", 10));  // the host's
    task->Know(11);
    task->Tell(false, {"c1", 11, -1, "", "", "", ""});
    EXPECT_THAT(host.TakeJournal(), ElementsAre("a forgets 7", "b forgets 7", "a forgets 8", "b forgets 8"));
}

TEST_F(DetectTaskTest, ImagesAreComparedWithoutRegistryAndThenWithoutTagAndWhitelistedOnesNotices)
{
    task->RefreshPolicy(true);
    for (const auto& [image, isWhitelisted] : std::map<std::string, bool>{{"hub/library/nginx:latest", true},
                                                                          {"nginx:latest", false},
                                                                          {"redis:7", true},
                                                                          {"library/redis:7", false},
                                                                          {"host:5000/nginx:1:2", true},
                                                                          {"", false}}) {
        task->Tell(true, {"c1", 7, -1, "", "", "", image});
        EXPECT_EQ(task->Procs().empty(), isWhitelisted) << image;
        task->Tell(false, {"c1", 7, -1, "", "", "", ""});
    }
    task->Know(7);
    task->Tell(false, {"c1", 7, -1, "", "", "", "redis:7"});
    EXPECT_EQ(task->Receive(Engine::ContainerProcMessage(true, nullptr)), 0);
    EXPECT_THAT(task->Procs(), ElementsAre(Key(7)));
}

TEST_F(DetectTaskTest, FourAccessesOfUnknownProcessesAreKeptAndReplayedBeforeTheNextIsKept)
{
    host.containers["c1"].imageName = "plain";
    for (const int pid : {0, 1, 2, 3, 2}) {
        EXPECT_EQ(Access(pid), -1);
    }
    task->Know(0);
    task->Know(2);
    EXPECT_THAT(host.TakeJournal(), IsEmpty()) << "only a notification triggers the replay";
    EXPECT_EQ(Access(9), -1);
    EXPECT_THAT(host.TakeJournal(), ElementsAre("a 2/f", "b 2/f", "a 2/f", "b 2/f"));
    EXPECT_THAT(task->CachedNotifications(), ElementsAre(FieldsAre("/f", 1), FieldsAre("/f", 3), FieldsAre("/f", 9)));
}

// The process table. Fields: parent, pid, name, executable, container, time of exit.

TEST_F(DetectTaskTest, ForkExecAndExitInAContainerAreRecorded)
{
    world.PutInContainer(9, "");
    EXPECT_EQ(Receive(Support::Fork(9, "init", 10)), -1);
    EXPECT_EQ(Receive(Support::Exec(9, "/bin/x")), -1);
    EXPECT_EQ(Receive(Support::Exit(9)), -1);
    EXPECT_THAT(task->Procs(), IsEmpty());
    world.PutInContainer(10, "c1");
    EXPECT_EQ(Receive(Support::Fork(10, "runner", 11)), 0);
    EXPECT_THAT(task->Procs().at(10), FieldsAre(-1, 10, "", "", "c1", 0)) << "new, so without its name";
    EXPECT_EQ(Receive(Support::Exec(11, "/bin/tool")), 0);
    EXPECT_THAT(task->Procs().at(11), FieldsAre(10, 11, "runner", "/bin/tool", "c1", 0));
    world.PutInContainer(10, "c2");
    EXPECT_EQ(Receive(Support::Fork(10, "renamed", 11)), 0);
    EXPECT_THAT(task->Procs().at(10), FieldsAre(-1, 10, "renamed", "", "c2", 0));
    EXPECT_THAT(task->Procs().at(11), FieldsAre(10, 11, "renamed", "", "c2", 0)) << "the id was used again";
    task->Know(11, "another");
    EXPECT_EQ(Receive(Support::Exit(11)), 0);
    EXPECT_THAT(task->Procs().at(11), FieldsAre(10, 11, "renamed", "", "c2", 1'700'000'000)) << "marked, as it was";
    task->Tell(false, {"c1", 11, -1, "", "", "", ""});
    EXPECT_THAT(task->Procs(), ElementsAre(Key(10)));
}

TEST_F(DetectTaskTest, AFullTableIsPrunedBeforeTheParentGoesIn)
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
    EXPECT_EQ(task->Procs().at(1002).name, "") << "forgotten, then new: without its name";

    world.now += 9;
    for (int pid = 2000; pid <= 2638; ++pid) {
        task->Know(pid);
    }
    EXPECT_THAT(task->Procs(), ElementsAre(Key(2638))) << "a notice for a full table prunes, too";
}

}  // namespace
