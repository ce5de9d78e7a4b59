// SPDX-License-Identifier: Apache-2.0
#include "NamespaceCheckModule.h"

namespace Engine {
namespace {

constexpr char feature[] = "containerescape";

}  // namespace

NamespaceCheckModule::NamespaceCheckModule() : Framework::Module("namespace_check_module")
{
}

NamespaceCheckModule::~NamespaceCheckModule() = default;

int NamespaceCheckModule::Init()
{
    task = std::make_unique<NamespaceSwitchTask>(feature);
    if (RegisterTask(task.get(), false) != 0) {
        task.reset();
        return -1;
    }
    return Framework::Module::Init();
}

int NamespaceCheckModule::UnInit()
{
    if (task != nullptr) {
        UnRegisterTask(task->name());
        task.reset();
    }
    return Framework::Module::UnInit();
}

}  // namespace Engine

extern "C" Framework::Module* CreateModule()
{
    return new Engine::NamespaceCheckModule;
}
