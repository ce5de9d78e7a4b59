// SPDX-License-Identifier: Apache-2.0
// The plug-in that the agent loads. Everything hangs off the one detection task that Init makes.
//
// Ownership: owns the detection task; refers to the collector's metadata service. The agent owns the module.
// Thread:    the agent's loading thread; RefreshFeaturePolicy on the one that delivers policies.
#pragma once

#include <memory>
#include <string>

#include "ContainerEscapeDetectTask.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "messages/ContainerMessages.h"

namespace Engine {

class ContainerEscapeModule : public Framework::Module {
public:
    ContainerEscapeModule();
    ~ContainerEscapeModule() override;

    // Without a container collector or a trace task the module stays loaded but idle, with an error line. Returns what
    // the base returns.
    int Init() override;
    int UnInit() override;

    // Whether the agent has what detection needs: the container metadata service and the trace task.
    bool CheckRequiredModule();

    // The policy callback: parses `content` when `name` is this feature's, marks the policy in `slot` as changed, and
    // returns the new policy for the framework to own; null for another feature. A document that does not fit gives a
    // policy with what could be read of it.
    Framework::Policy* RefreshFeaturePolicy(const std::string& name, const std::string& content,
                                            Framework::Policy*& slot);

private:
    void CreateDetectTask();

    std::unique_ptr<ContainerEscapeDetectTask> detectTask;
    ContainerMetaInfo* containerMetaInfo;
};

}  // namespace Engine

// The plug-in's entry point. The caller owns the module.
extern "C" Framework::Module* CreateModule();
