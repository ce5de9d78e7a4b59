// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeModule.h"

#include <chrono>
#include <unordered_set>

#include "BruteforceSubmodule.h"
#include "ContainerEscapeFeaturePolicy.h"
#include "DirtyCowSubmodule.h"
#include "EscapeFileAccessSubmodule.h"
#include "HighRiskSyscallSubmodule.h"
#include "ModuleLog.h"
#include "ModuleUtils.h"
#include "ShockerSubmodule.h"
#include "messages/FtraceMessages.h"

namespace Engine {

namespace {

constexpr char feature[] = "containerescape";
constexpr char policyId[] = "10001";

constexpr std::chrono::seconds bruteforceWindow{1};
constexpr unsigned short bruteforceCount = 300;

}  // namespace

ContainerEscapeModule::ContainerEscapeModule() : Module("containerescape_module"), containerMetaInfo(nullptr)
{
}

ContainerEscapeModule::~ContainerEscapeModule() = default;

int ContainerEscapeModule::Init()
{
    ModuleLog::Information("container escape module loading");
    RegisterPolicyCallback(policyId, new Framework::PolicyCallback<ContainerEscapeModule>(
                                         this, &ContainerEscapeModule::RefreshFeaturePolicy));
    if (CheckRequiredModule()) {
        CreateDetectTask();
    }
    return Module::Init();
}

bool ContainerEscapeModule::CheckRequiredModule()
{
    containerMetaInfo = dynamic_cast<ContainerMetaInfo*>(FindAgentTask("container_collect_task"));
    if (containerMetaInfo == nullptr) {
        ModuleLog::Error("not got container_collect_task");
        return false;
    }
    if (dynamic_cast<FtraceTask*>(FindAgentTask("ftrace_task")) == nullptr) {
        ModuleLog::Error("not got ftrace or the ftrace is not enabled");
        return false;
    }
    return true;
}

// The order of attachment is the order in which the detectors see every event, and with it the order of alarms.
void ContainerEscapeModule::CreateDetectTask()
{
    detectTask = std::make_unique<ContainerEscapeDetectTask>(feature, containerMetaInfo);
    ContainerEscapeDetectTask& task = *detectTask;
    task.AttachSubmodule(
        std::make_unique<BruteforceSubmodule>(task, containerMetaInfo, bruteforceWindow, bruteforceCount));
    task.AttachSubmodule(std::make_unique<ShockerSubmodule>(task, containerMetaInfo));
    task.AttachSubmodule(std::make_unique<DirtyCowSubmodule>(task, containerMetaInfo, true));
    task.AttachSubmodule(
        std::make_unique<HighRiskSyscallSubmodule>(task, containerMetaInfo, std::unordered_set<int>{}));
    task.AttachSubmodule(std::make_unique<EscapeFileAccessSubmodule>(task, containerMetaInfo));
    RegisterTask(detectTask.get(), false);
}

int ContainerEscapeModule::UnInit()
{
    UnRegisterTask("container_escape_detect_task");
    UnRegisterTask("container_escape_nss_task");  // where another module of the agent registered it
    detectTask.reset();
    return Module::UnInit();
}

Framework::Policy* ContainerEscapeModule::RefreshFeaturePolicy(const std::string& name, const std::string& content,
                                                               Framework::Policy*& slot)
{
    ModuleLog::Trace("refresh policy %s", name);
    std::unique_ptr<ContainerEscapeFeaturePolicy> policy;
    if (name == feature) {
        policy = std::make_unique<ContainerEscapeFeaturePolicy>();
        if (!policy->Parse(content)) {
            ModuleLog::Warning("policy %s is not a whole document, going on with what could be read of it", name);
        }
    }
    if (slot != nullptr) {
        slot->changed = true;
    }
    ModuleLog::Trace("refresh policy %s done", name);
    return policy.release();
}

}  // namespace Engine

extern "C" Framework::Module* CreateModule()
{
    return new Engine::ContainerEscapeModule;
}
