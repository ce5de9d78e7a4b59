// SPDX-License-Identifier: Apache-2.0
// The plug-in that makes the agent compare processes' namespaces with their containers'.
// Thread: the one that loads and unloads modules.
#pragma once

#include <memory>

#include "NamespaceSwitchCheckTask.h"
#include "framework/Module.h"

namespace Engine {

class NamespaceCheckModule : public Framework::Module {
public:
    NamespaceCheckModule();
    ~NamespaceCheckModule() override;

    // Registers the task; it starts when its feature has a policy. -1 when a task of that name is registered already.
    int Init() override;
    // Stops the task and forgets it.
    int UnInit() override;

private:
    std::unique_ptr<NamespaceSwitchTask> task;  // null until Init
};

}  // namespace Engine
