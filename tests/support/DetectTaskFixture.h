// SPDX-License-Identifier: Apache-2.0
// A detection task driven on the test's thread: nothing but the host's side runs on threads of its own.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "ContainerEscapeDetectTask.h"
#include "tests/support/AgentFixture.h"

namespace Support {

class DetectTask : public Engine::ContainerEscapeDetectTask {
public:
    using ContainerEscapeDetectTask::ContainerEscapeDetectTask;

    // As the framework does when a policy is delivered. Not owned; null is allowed.
    void SetPolicies(Framework::Policy* feature, Framework::Policy* task)
    {
        featurePolicy.Set(feature);
        taskPolicy.Set(task);
    }
};

class DetectTaskFixture : public AgentFixture {
protected:
    void SetUp() override
    {
        AddHostTasks();
        task = std::make_unique<DetectTask>("containerescape", collector);
    }

    // Makes `pid` a known process of a container whose image is not whitelisted.
    void Know(int pid, const std::string& containerId = "c1")
    {
        auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
        info->pid = pid;
        info->containerId = containerId;
        task->Receive(Engine::ContainerProcMessage(true, info));
    }

    // The detector is the task's; the reference is good as long as the task.
    template <class T, class... Args>
    T& Attach(Args&&... args)
    {
        auto submodule = std::make_unique<T>(std::forward<Args>(args)...);
        T& attached = *submodule;
        task->AttachSubmodule(std::move(submodule));
        return attached;
    }

    std::unique_ptr<DetectTask> task;
};

}  // namespace Support
