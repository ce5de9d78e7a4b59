// SPDX-License-Identifier: Apache-2.0
// The plug-in: libcontainer_module.so.
#include <Poco/Util/Application.h>

#include <memory>
#include <string>
#include <vector>

#include "framework/Module.h"
#include "host/container/ContainerCollectTask.h"
#include "host/container/ContainerLog.h"
#include "host/sdk/Config.h"
#include "host/sdk/SystemView.h"

namespace Engine {

namespace {

std::vector<SDK::EngineAddress> Engines()
{
    const auto& settings = Poco::Util::Application::instance().config();
    return settings.has(SDK::Config::engines) ? SDK::EngineAddress::Split(settings.getRawString(SDK::Config::engines))
                                              : SDK::EngineAddress::Usual();
}

// Thread: the framework's, which loads and unloads modules.
class ContainerModule : public Framework::Module {
public:
    ContainerModule() : Framework::Module("container_module") {}

    int Init() override
    {
        task = std::make_unique<ContainerCollectTask>(Engines(), SDK::SystemView::Current());
        auto* trace = dynamic_cast<TraceObservable*>(FindTask("ftrace_task"));
        if (trace == nullptr || !task->Attach(*trace)) {
            ContainerLog::Warning("no trace events: containers of processes are read from /proc, possibly too late");
        }
        SDK::SystemView::SetContainerResolver(&task->Resolver());
        SDK::ContainerNames::Provide(task.get());
        if (RegisterTask(&task->BundleTask(), false) != 0) {
            return NameIsTaken(ContainerBundleTask::taskName);
        }
        if (RegisterTask(task.get(), false) != 0) {
            UnRegisterTask(ContainerBundleTask::taskName);
            return NameIsTaken(ContainerCollectTask::taskName);
        }
        return Framework::Module::Init();
    }

    int UnInit() override
    {
        if (task != nullptr) {
            UnRegisterTask(ContainerCollectTask::taskName);
            UnRegisterTask(ContainerBundleTask::taskName);
            Leave();
        }
        return Framework::Module::UnInit();
    }

private:
    int NameIsTaken(const char* taskName)
    {
        ContainerLog::Error("a task named %s exists already", std::string{taskName});
        Leave();
        return -1;
    }

    void Leave()
    {
        SDK::ContainerNames::Provide(nullptr);
        SDK::SystemView::SetContainerResolver(nullptr);
        task->Detach();
        task.reset();
    }

    std::unique_ptr<ContainerCollectTask> task;
};

}  // namespace

}  // namespace Engine

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule()
{
    try {
        return new Engine::ContainerModule;
    } catch (...) {
        return nullptr;
    }
}
