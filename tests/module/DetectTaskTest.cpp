// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeFeaturePolicy.h"
#include "tests/module/DetectFixture.h"

namespace {

using Support::RecordingSubmodule;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;

class DetectTaskTest : public Support::DetectFixture {
protected:
    DetectTaskTest()
    {
        feature.Parse(R"({"content": {"image_white_namelist": ["old"], "container_escape_detect_task":
            {"highrisk_calls": ["bind"], "host_directorys": ["/"]}}})");
        task->SetPolicies(&feature, feature.Find("container_escape_detect_task"));
    }

    Engine::ContainerEscapeFeaturePolicy feature;
};

TEST_F(DetectTaskTest, StartSubscribesThenStartsTheDetectorsInOrderAndStopUndoesItAll)
{
    task->Attach<RecordingSubmodule>(host, "a");
    task->Attach<RecordingSubmodule>(host, "b");
    EXPECT_EQ(task->Init(), 0);
    EXPECT_THAT(host.TakeJournal(),
                ElementsAre("notices", "notices", "sched:sched_process_exit", "sched:sched_process_fork",
                            "sched:sched_process_exec", "a reconfigure 1", "a init", "b reconfigure 1", "b init"));
    task->GetAlarmFilter().CheckAndEnqueue("pending", "");
    EXPECT_EQ(task->UnInit(), 0);
    EXPECT_THAT(task->GetAlarmFilter().Cache(), IsEmpty());
    EXPECT_THAT(host.TakeJournal(), ElementsAre("-notices", "-sched:sched_process_exit", "-sched:sched_process_fork",
                                                "-sched:sched_process_exec", "a deinit", "b deinit", "-audit"));
}

TEST_F(DetectTaskTest, SystemCallsOfKnownProcessesReachTheDetectorsInOrderUntilOneHidesThem)
{
    task->Attach<RecordingSubmodule>(host, "a");
    task->Attach<RecordingSubmodule>(host, "b");
    EXPECT_EQ(Receive(Support::Syscall(7, "bind")), -1);
    task->Know(7);
    EXPECT_EQ(Receive(Support::Exec(7, "/bin/sh")), 0);
    EXPECT_THAT(host.TakeJournal(), IsEmpty());
    EXPECT_EQ(Receive(Support::Syscall(7, "bind")), 0);
    EXPECT_THAT(host.TakeJournal(), ElementsAre("a syscalls:sys_enter_bind", "b syscalls:sys_enter_bind"));

    task->Attach<RecordingSubmodule>(host, "hides", 5);
    task->Attach<RecordingSubmodule>(host, "hidden");
    EXPECT_EQ(Receive(Support::Syscall(7, "bind")), 5);
    EXPECT_THAT(host.TakeJournal(), testing::SizeIs(3));
}

TEST_F(DetectTaskTest, DetectorsForgetAnIdThatExitsOrIsForkedAndNoneForANotice)
{
    task->Attach<RecordingSubmodule>(host, "a");
    Receive(Support::Exit(7));
    world.PutInContainer(7, "c1");
    Receive(Support::Fork(7, "sh", 8));
    Receive(Support::Fork(9, "sh", 10));  // the host's
    task->Know(11);
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    info->pid = 11;
    task->Receive(Engine::ContainerProcMessage(false, info));
    EXPECT_THAT(host.TakeJournal(), ElementsAre("a forgets 7", "a forgets 8"));
}

TEST_F(DetectTaskTest, NoticesOfWhitelistedImagesChangeNothing)
{
    task->RefreshPolicy(true);
    task->Know(7);
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    info->imageName = "registry/old:3";
    for (const int pid : {7, 8}) {
        info->pid = pid;
        EXPECT_EQ(task->Receive(Engine::ContainerProcMessage(pid == 8, info)), 0);
    }
    EXPECT_THAT(task->Procs(), ElementsAre(Key(7)));
    EXPECT_EQ(task->Receive(Engine::ContainerProcMessage(true, nullptr)), 0);
}

TEST_F(DetectTaskTest, ImagesAreComparedWithoutRegistryAndThenWithoutTag)
{
    const struct {
        const char* whitelist;
        const char* image;
        bool isWhitelisted;
    } rows[] = {
        {"nginx", "hub/library/nginx:latest", true}, {"nginx", "nginx:latest", false},
        {"nginx:latest", "nginx:latest", true},      {"nginx:latest", "library/nginx:latest", false},
        {"nginx", "host:5000/nginx:1:2", true},      {"", "", false},
    };
    for (const auto& row : rows) {
        feature.Parse(R"({"content": {"image_white_namelist": [")" + std::string{row.whitelist} + R"("]}})");
        task->RefreshPolicy(true);
        EXPECT_EQ(task->IsWhitelisted(row.image), row.isWhitelisted) << row.whitelist << " against " << row.image;
    }
}

// File notifications.

class FileNotifyTest : public DetectTaskTest {
protected:
    FileNotifyTest()
    {
        host.containers["c1"].imageName = "plain";
        host.containers["c2"].imageName = "hub/old:1";
        task->RefreshPolicy(true);
        task->Attach<RecordingSubmodule>(host, "a", 4);
        task->Attach<RecordingSubmodule>(host, "b", 6);
    }
    int Notify(int pid)
    {
        Engine::FileNotifyMessage message(3, "/f", 2);
        message.SetProcess(static_cast<unsigned int>(pid), "x");
        return task->FileNotifyMessageAction(&message);
    }
    std::vector<int> Cached() const
    {
        std::vector<int> cached;
        for (const auto& entry : task->CachedNotifications()) {
            cached.push_back(entry.pid);
        }
        return cached;
    }
};

TEST_F(FileNotifyTest, AKnownProcessIsReportedToAllUnlessItsContainerIsWhitelistedOrHasNoId)
{
    task->Know(7, "c1");
    task->Know(8, "c2");
    task->Know(9, "../no id");
    EXPECT_EQ(Notify(8), -1);
    EXPECT_EQ(Notify(9), -1);
    EXPECT_THAT(host.TakeJournal(), IsEmpty());
    EXPECT_EQ(Notify(7), 6) << "the last result counts";
    EXPECT_THAT(host.TakeJournal(), ElementsAre("a 7/f", "b 7/f"));
    EXPECT_THAT(Cached(), IsEmpty());
}

TEST_F(FileNotifyTest, FourOfUnknownProcessesAreKeptAndReplayedBeforeTheNextIsKept)
{
    for (const int pid : {0, 1, 2, 3, 2}) {
        EXPECT_EQ(Notify(pid), -1);
    }
    EXPECT_THAT(Cached(), ElementsAre(1, 2, 3, 2));
    task->Know(2, "c1");
    EXPECT_THAT(host.TakeJournal(), IsEmpty()) << "only a notification triggers the replay";
    EXPECT_EQ(Notify(9), -1);
    EXPECT_THAT(host.TakeJournal(), ElementsAre("a 2/f", "b 2/f", "a 2/f", "b 2/f"));
    EXPECT_THAT(Cached(), ElementsAre(1, 3, 9));
}

}  // namespace
