// SPDX-License-Identifier: Apache-2.0
// The real detection task with its five detectors, driven on the calling thread; what they send goes nowhere.
#pragma once

#include <memory>
#include <utility>

#include "BruteforceSubmodule.h"
#include "ContainerEscapeDetectTask.h"
#include "DirtyCowSubmodule.h"
#include "EscapeFileAccessSubmodule.h"
#include "HighRiskSyscallSubmodule.h"
#include "ShockerSubmodule.h"
#include "framework/Engine.h"
#include "sdk/LoggerUtils.h"
#include "tests/support/CollectingTasks.h"

namespace Engine::Bench {

// Takes alarms and forgets them.
class ForgetfulReports final : public Framework::Task {
public:
    ForgetfulReports() : Task("data_comm_report_task", "", Framework::TaskCondition::EventLoop, 1024) {}
};

// Counts what its task received.
class CountingTask final : public ContainerEscapeDetectTask {
public:
    using ContainerEscapeDetectTask::ContainerEscapeDetectTask;
    using ContainerEscapeDetectTask::Receive;

    int Receive(const FtraceMessage& message) override
    {
        ++seen;
        const int result = ContainerEscapeDetectTask::Receive(message);
        dropped += result == -1 ? 1 : 0;
        return result;
    }

    std::size_t seen = 0;
    std::size_t dropped = 0;
};

// One at a time.
class DetectWorld {
public:
    static constexpr int knownPids = 600;             // about as many as the table keeps
    static constexpr int firstKnown = 1'000'000'000;  // no real one: PID_MAX_LIMIT in include/linux/threads.h is less
    static constexpr const char* container = "5f2c6b1d8e9a4c7f5f2c6b1d8e9a4c7f5f2c6b1d8e9a4c7f5f2c6b1d8e9a4c7f";

    // `window`, `maxCount`: of the brute-force detector.
    explicit DetectWorld(std::chrono::duration<long> window = std::chrono::duration<long>{1},
                         unsigned short maxCount = 300)
    {
        SDK::LoggerUtils::GetInstance()->SetLevel("notice");  // the agent's
        auto collecting = std::make_unique<Support::CollectorTask>();
        collector = collecting.get();
        agent.AddModule(std::make_unique<Support::HostModule<Support::CollectorTask>>(std::move(collecting)));
        agent.AddModule(std::make_unique<Support::HostModule<ForgetfulReports>>(std::make_unique<ForgetfulReports>()));
        collector->Put({container, "web", "sha256:0123456789abcdef0123456789abcdef", "shop/web:7", {}, {}});

        task = std::make_unique<CountingTask>("containerescape", collector);
        Attach<BruteforceSubmodule>(*task, collector, window, maxCount);
        Attach<ShockerSubmodule>(*task, collector);
        Attach<DirtyCowSubmodule>(*task, collector, true);
        Attach<HighRiskSyscallSubmodule>(*task, collector, std::unordered_set<int>{})
            .Reconfigure({{}, {"unshare", "setns", "mount", "pivot_root", "ptrace", "process_vm_writev"}});
        Attach<EscapeFileAccessSubmodule>(*task, collector);
        for (int i = 0; i < knownPids; ++i) {
            Know(firstKnown + 97 * i);  // as far apart as real ones
        }
    }

    void Know(int pid)
    {
        auto info = std::make_shared<ContainerProcMessage::ProcInfo>();
        info->pid = pid;
        info->containerId = container;
        info->executable = "/usr/bin/probe";
        task->ContainerEscapeDetectTask::Receive(ContainerProcMessage(true, info));
    }

    Framework::Engine agent;
    Support::CollectorTask* collector = nullptr;  // the framework's
    std::unique_ptr<CountingTask> task;

private:
    template <class T, class... Args>
    T& Attach(Args&&... args)
    {
        auto submodule = std::make_unique<T>(std::forward<Args>(args)...);
        T& attached = *submodule;
        task->AttachSubmodule(std::move(submodule));
        return attached;
    }
};

}  // namespace Engine::Bench
