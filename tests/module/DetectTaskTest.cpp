// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeDetectTask.h"

#include "ContainerEscapeFeaturePolicy.h"
#include "ContainerEscapeTaskPolicy.h"
#include "RecordingSubmodule.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"
#include "tests/support/DetectTaskFixture.h"

namespace {

using testing::Each;
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

    Support::RecordingSubmodule& AttachRecorder(const std::string& name)
    {
        return Attach<Support::RecordingSubmodule>(*task, name, collector, journal);
    }
    Framework::Policy* Section() const { return feature.Find("container_escape_detect_task"); }

    Engine::ContainerEscapeFeaturePolicy feature;
    Support::RecordingSubmodule::Journal journal;
};

// Takes no trace events and hides nothing; a detector of its own kind.
class BareSubmodule : public Engine::Submodule {
public:
    int Init() override { return 0; }
    void DeInit() override {}
    int RunOnce() override { return 0; }
    int HandleFileNotifyMsg(Engine::FileNotifyMessage* /*message*/) override { return 9; }
    void Reconfigure(const Engine::ContainerEscapeDetectPolicyContent& /*content*/) override {}
};

class HidingSubmodule : public BareSubmodule, public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    int Receive(const Engine::FtraceMessage& /*message*/) override { return 5; }
};

TEST_F(DetectTaskTest, StartSubscribesThenStartsTheDetectorsInOrder)
{
    task->SetPolicies(&feature, Section());
    AttachRecorder("a");
    AttachRecorder("b");
    EXPECT_EQ(task->Init(), 0);

    const auto registrations = Taken(*collector, collector->registrations);
    ASSERT_THAT(registrations, SizeIs(2));  // once for the notices, once with the trace events
    for (const auto& registration : registrations) {
        EXPECT_TRUE(registration.requester == task.get() && registration.subscribe && !registration.flag);
    }
    EXPECT_THAT(TraceWatches(),
                ElementsAre("sched:sched_process_exit", "sched:sched_process_fork", "sched:sched_process_exec"));
    EXPECT_THAT(journal, ElementsAre("a reconfigure 1", "a init", "b reconfigure 1", "b init"));
    EXPECT_THAT(logs.With("sent audit rule msg to audit task"), SizeIs(1));
}

TEST_F(DetectTaskTest, StopUndoesItAll)
{
    task->Init();
    AttachRecorder("a");
    task->GetAlarmFilter().CheckAndEnqueue("pending", "");
    TraceWatches();
    Taken(*collector, collector->registrations);

    EXPECT_EQ(task->UnInit(), 0);
    EXPECT_THAT(task->GetAlarmFilter().Cache(), IsEmpty());
    const auto registrations = Taken(*collector, collector->registrations);
    ASSERT_THAT(registrations, SizeIs(1));
    EXPECT_FALSE(registrations[0].subscribe);
    EXPECT_THAT(TraceWatches(),
                ElementsAre("-sched:sched_process_exit", "-sched:sched_process_fork", "-sched:sched_process_exec"));
    EXPECT_THAT(task->GetWatchHandle(), IsEmpty());
    EXPECT_THAT(journal, ElementsAre("a deinit"));
    EXPECT_THAT(Taken(*audit, audit->unsubscribed), ElementsAre(task.get()));
    EXPECT_THAT(logs.Texts(Poco::Message::PRIO_INFORMATION), ElementsAre("Container escape task UnInit done"));
    ASSERT_THAT(logs.From("ContainerEscapeDetectTask.cpp"), SizeIs(2))
        << "a site without a fixed position names its own";
    EXPECT_GT(logs.From("ContainerEscapeDetectTask.cpp")[1].line, logs.From("ContainerEscapeDetectTask.cpp")[0].line);
}

TEST_F(DetectTaskTest, RefreshTakesOverWhatChanged)
{
    task->SetPolicies(&feature, Section());
    EXPECT_TRUE(task->RefreshPolicy(false));
    EXPECT_THAT(task->ImageWhitelist(), UnorderedElementsAre("old"));
    EXPECT_THAT(task->PolicyContent().highRiskCalls, UnorderedElementsAre("bind"));
    EXPECT_THAT(task->PolicyContent().hostDirectories, UnorderedElementsAre("/"));

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
    EXPECT_THAT(task->PolicyContent().highRiskCalls, IsEmpty());

    struct Open : Support::DetectTask {
        using DetectTask::featurePolicy;
        using DetectTask::taskPolicy;
    };
    auto& slots = static_cast<Open&>(*task);
    EXPECT_FALSE(slots.featurePolicy.MarkApplied()) << "was marked before the cast failed";
    EXPECT_TRUE(slots.taskPolicy.MarkApplied()) << "was not looked at";
}

TEST_F(DetectTaskTest, EventsOfUnknownProcessesReachNobody)
{
    AttachRecorder("a");
    EXPECT_EQ(task->Receive(Support::Syscall(7, "bind").Message()), -1);
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(logs.All(), IsEmpty());
}

TEST_F(DetectTaskTest, EventsOfKnownProcessesReachTheDetectorsInOrderUntilOneHidesThem)
{
    AttachRecorder("a");
    task->AttachSubmodule(nullptr);
    Attach<BareSubmodule>();
    AttachRecorder("b");
    Know(7);
    EXPECT_EQ(task->Receive(Support::Syscall(7, "bind").Message()), 0);
    EXPECT_THAT(journal, ElementsAre("a syscalls:sys_enter_bind", "b syscalls:sys_enter_bind"));
    EXPECT_THAT(logs.With("Get syscall(syscalls:sys_enter_bind), pid = 7"), SizeIs(1));

    Attach<HidingSubmodule>();
    AttachRecorder("c");
    journal.clear();
    EXPECT_EQ(task->Receive(Support::Syscall(7, "bind").Message()), 5);
    EXPECT_THAT(journal, ElementsAre("a syscalls:sys_enter_bind", "b syscalls:sys_enter_bind"));
}

TEST_F(DetectTaskTest, SchedulerEventsStayWithTheTask)
{
    AttachRecorder("a");
    Know(7);
    EXPECT_EQ(task->Receive(Support::Exec(7, "/bin/sh").Message()), 0);
    EXPECT_EQ(task->Receive(Support::Exit(7).Message()), 0);
    EXPECT_THAT(journal, IsEmpty());
}

TEST_F(DetectTaskTest, EachEntryPointKeepsItsOwnCpuShare)
{
    AttachRecorder("a");
    Know(7);
    SDK::InnerCpuCtrlUtils::SetShare(99);
    const std::uint64_t enough =
        SDK::TimeUtils::GetCurrentSystemTickUsed() + SDK::InnerCpuCtrlUtils::GetSuggestedRunTick();
    while (SDK::TimeUtils::GetCurrentSystemTickUsed() <= enough) {
    }
    task->Receive(Support::Syscall(7, "bind").Message());
    Know(8);
    SDK::InnerCpuCtrlUtils::SetShare(0);
    std::vector<int> lines;  // the limiter notes its call sites
    for (const Support::LogRecord& record : logs.From("ContainerEscapeDetectTask")) {
        lines.push_back(record.line);
    }
    EXPECT_THAT(lines, ElementsAre(126, 30, 111));
}

TEST_F(DetectTaskTest, ARunWithoutDescriptorEventsHandlesTheQueueAndRunsTheDetectors)
{
    AttachRecorder("a");
    auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
    info->pid = 7;
    std::shared_ptr<Framework::Message> notice = std::make_shared<Engine::ContainerProcMessage>(true, info);
    ASSERT_EQ(task->EnqueueMsg(notice), 0);
    EXPECT_EQ(task->Run(), 0);
    EXPECT_THAT(task->Procs(), SizeIs(1));
    EXPECT_THAT(journal, ElementsAre("a run"));
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
