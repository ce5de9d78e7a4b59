// SPDX-License-Identifier: Apache-2.0
// The detection task driven on the caller's thread, and its detectors.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>

#include "BruteforceSubmodule.h"
#include "ContainerEscapeDetectTask.h"
#include "DirtyCowSubmodule.h"
#include "EscapeFileAccessSubmodule.h"
#include "HighRiskSyscallSubmodule.h"
#include "ShockerSubmodule.h"

namespace Support {

class DetectTask : public Engine::ContainerEscapeDetectTask {
public:
    explicit DetectTask(Engine::ContainerMetaInfo* metadata)
        : ContainerEscapeDetectTask("containerescape", metadata), metadata(metadata)
    {
    }

    // As the framework does when a policy is delivered. Not owned; null is allowed.
    void SetPolicies(Framework::Policy* feature, Framework::Policy* task)
    {
        featurePolicy.Set(feature);
        taskPolicy.Set(task);
    }

    // Makes `pid` a known process of a container whose image is not whitelisted.
    void Know(int pid, const std::string& containerId = "c1")
    {
        auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
        info->pid = pid;
        info->containerId = containerId;
        info->executable = "/usr/bin/probe";
        Receive(Engine::ContainerProcMessage(true, info));
    }

    // The detector is this task's; the reference is good as long as the task.
    template <class T, class... Args>
    T& Attach(Args&&... args)
    {
        auto detector = std::make_unique<T>(*this, std::forward<Args>(args)...);
        T& attached = *detector;
        AttachSubmodule(std::move(detector));
        return attached;
    }

    // All of them in the module's order. `window`, `maxCount`: of the brute-force detector.
    void AttachDetectors(std::chrono::duration<long> window, unsigned short maxCount,
                         std::unordered_set<std::string> highRiskCalls)
    {
        Attach<Engine::BruteforceSubmodule>(metadata, window, maxCount);
        Attach<Engine::ShockerSubmodule>(metadata);
        Attach<Engine::DirtyCowSubmodule>(metadata, true);
        Attach<Engine::HighRiskSyscallSubmodule>(metadata, std::unordered_set<int>{})
            .Reconfigure({{}, std::move(highRiskCalls)});
        Attach<Engine::EscapeFileAccessSubmodule>(metadata);
    }

private:
    Engine::ContainerMetaInfo* metadata;
};

}  // namespace Support
