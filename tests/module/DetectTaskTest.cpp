// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeDetectTask.h"

#include "ContainerEscapeFeaturePolicy.h"
#include "RecordingSubmodule.h"
#include "tests/support/DetectTaskFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class DetectTaskTest : public Support::DetectTaskFixture {
protected:
    DetectTaskTest()
    {
        feature.Parse(R"({"content": {"image_white_namelist": ["old"], "container_escape_detect_task":
            {"highrisk_calls": ["bind"], "host_directorys": ["/"]}}})");
    }

    void AttachRecorder(const std::string& name)
    {
        Attach<Support::RecordingSubmodule>(*task, name, collector, journal);
    }
    Framework::Policy* Section() const { return feature.Find("container_escape_detect_task"); }

    Engine::ContainerEscapeFeaturePolicy feature;
    Support::RecordingSubmodule::Journal journal;
};

TEST_F(DetectTaskTest, StartSubscribesThenStartsTheDetectorsInOrderAndStopUndoesItAll)
{
    task->SetPolicies(&feature, Section());
    AttachRecorder("a");
    AttachRecorder("b");
    EXPECT_EQ(task->Init(), 0);
    auto registrations = Taken(*collector, collector->registrations);
    ASSERT_THAT(registrations, SizeIs(2));  // once for the notices, once with the trace events
    EXPECT_TRUE(registrations[0].subscribe && registrations[1].subscribe);
    EXPECT_THAT(TraceWatches(),
                ElementsAre("sched:sched_process_exit", "sched:sched_process_fork", "sched:sched_process_exec"));
    EXPECT_THAT(journal, ElementsAre("a reconfigure 1", "a init", "b reconfigure 1", "b init"));

    task->GetAlarmFilter().CheckAndEnqueue("pending", "");
    EXPECT_EQ(task->UnInit(), 0);
    EXPECT_THAT(task->GetAlarmFilter().Cache(), IsEmpty());
    registrations = Taken(*collector, collector->registrations);
    ASSERT_THAT(registrations, SizeIs(1));
    EXPECT_FALSE(registrations[0].subscribe);
    EXPECT_THAT(TraceWatches(),
                ElementsAre("-sched:sched_process_exit", "-sched:sched_process_fork", "-sched:sched_process_exec"));
    EXPECT_THAT(journal, testing::Contains("b deinit"));
    EXPECT_THAT(Taken(*audit, audit->unsubscribed), ElementsAre(task.get()));
}

TEST_F(DetectTaskTest, RefreshTakesOverWhatChanged)
{
    task->SetPolicies(&feature, Section());
    EXPECT_TRUE(task->RefreshPolicy(false));
    EXPECT_THAT(task->PolicyContent().highRiskCalls, UnorderedElementsAre("bind"));

    feature.Parse(R"({"content": {"image_white_namelist": ["new"]}})");  // behind the framework's back
    EXPECT_FALSE(task->RefreshPolicy(false));
    EXPECT_THAT(task->ImageWhitelist(), UnorderedElementsAre("old"));
    EXPECT_TRUE(task->RefreshPolicy(true));
    EXPECT_THAT(task->ImageWhitelist(), UnorderedElementsAre("new"));
}

TEST_F(DetectTaskTest, AForeignFeaturePolicyCountsAsAppliedAndEndsTheRefresh)
{
    Framework::FeaturePolicy foreign("containerescape");
    task->SetPolicies(&foreign, Section());
    EXPECT_FALSE(task->RefreshPolicy(true));

    struct Open : Support::DetectTask {
        using DetectTask::featurePolicy;
        using DetectTask::taskPolicy;
    };
    auto& slots = static_cast<Open&>(*task);
    EXPECT_FALSE(slots.featurePolicy.MarkApplied()) << "was marked before the cast failed";
    EXPECT_TRUE(slots.taskPolicy.MarkApplied()) << "was not looked at";
}

TEST_F(DetectTaskTest, SystemCallsOfKnownProcessesReachTheDetectorsInOrderUntilOneHidesThem)
{
    struct HidingSubmodule : Support::RecordingSubmodule {
        using RecordingSubmodule::RecordingSubmodule;
        int Receive(const Engine::FtraceMessage& /*message*/) override { return 5; }
    };
    AttachRecorder("a");
    AttachRecorder("b");
    EXPECT_EQ(task->Receive(Support::Syscall(7, "bind").Message()), -1);
    Know(7);
    EXPECT_EQ(task->Receive(Support::Exec(7, "/bin/sh").Message()), 0);
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_EQ(task->Receive(Support::Syscall(7, "bind").Message()), 0);
    EXPECT_THAT(journal, ElementsAre("a syscalls:sys_enter_bind", "b syscalls:sys_enter_bind"));

    Attach<HidingSubmodule>(*task, "h", collector, journal);
    AttachRecorder("c");
    journal.clear();
    EXPECT_EQ(task->Receive(Support::Syscall(7, "bind").Message()), 5);
    EXPECT_THAT(journal, ElementsAre("a syscalls:sys_enter_bind", "b syscalls:sys_enter_bind"));
}

TEST_F(DetectTaskTest, NoticesOfWhitelistedImagesChangeNothing)
{
    task->SetPolicies(&feature, Section());
    task->RefreshPolicy(true);
    Know(7);
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    info->imageName = "registry/old:3";
    for (const int pid : {7, 8}) {
        info->pid = pid;
        EXPECT_EQ(task->Receive(Engine::ContainerProcMessage(pid == 8, info)), 0);
    }
    EXPECT_THAT(task->Procs(), ElementsAre(testing::Key(7)));
    EXPECT_EQ(task->Receive(Engine::ContainerProcMessage(true, nullptr)), 0);
}

}  // namespace
