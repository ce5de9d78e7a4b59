// SPDX-License-Identifier: Apache-2.0
// The plug-in: libprocess_collect_module.so.
#include "framework/Module.h"
#include "messages/ProcsMessage.h"

namespace Engine {

namespace {

class ProcessCollectModule : public Framework::Module {
public:
    ProcessCollectModule() : Framework::Module("process_collect_module") {}

    int Init() override
    {
        if (RegisterTask(&task, false) != 0) {
            return -1;
        }
        return Framework::Module::Init();
    }

    int UnInit() override
    {
        UnRegisterTask(task.name());
        return Framework::Module::UnInit();
    }

private:
    ProcsFullTask task;
};

}  // namespace

}  // namespace Engine

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule()
{
    try {
        return new Engine::ProcessCollectModule;
    } catch (...) {
        return nullptr;
    }
}
