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

    // Set by the framework when a policy is delivered.
    using ContainerEscapeDetectTask::featurePolicy;
    using ContainerEscapeDetectTask::taskPolicy;

    using Notice = Engine::ContainerProcMessage::ProcInfo;
    int Tell(bool started, Notice notice) { return Receive({started, std::make_shared<Notice>(std::move(notice))}); }

    // Makes `pid` a known process of a container whose image is not whitelisted.
    void Know(int pid, const std::string& container = "c1") { Tell(true, {container, pid, -1, "/bin/x", "", "", ""}); }

    // The detector is this task's; the reference is good as long as the task.
    template <class T, class... Args>
    T& Attach(Args&&... args)
    {
        auto detector = std::make_unique<T>(*this, metadata, std::forward<Args>(args)...);
        T& attached = *detector;
        AttachSubmodule(std::move(detector));
        return attached;
    }

    // All of them in the module's order. `window`, `maxCount`: of the brute-force detector.
    void AttachDetectors(std::chrono::duration<long> window, unsigned short maxCount,
                         std::unordered_set<std::string> highRiskCalls, Engine::Scope scope = Engine::Scope::Thread)
    {
        const Engine::ContainerEscapeDetectPolicyContent settings{{}, std::move(highRiskCalls), scope};
        SetScope(scope);
        Attach<Engine::BruteforceSubmodule>(window, maxCount).Reconfigure(settings);
        Attach<Engine::ShockerSubmodule>().Reconfigure(settings);
        Attach<Engine::DirtyCowSubmodule>(true);
        Attach<Engine::HighRiskSyscallSubmodule>(std::unordered_set<int>{}).Reconfigure(settings);
        Attach<Engine::EscapeFileAccessSubmodule>();
    }

private:
    Engine::ContainerMetaInfo* metadata;
};

}  // namespace Support
