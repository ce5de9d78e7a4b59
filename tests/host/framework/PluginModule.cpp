// SPDX-License-Identifier: Apache-2.0
// The smallest module that can be loaded: one task, owned by the framework.
#include <memory>

#include "framework/Module.h"

namespace {

class PluginModule : public Framework::Module {
public:
    PluginModule() : Module("plugin_module") {}
    int Init() override
    {
        auto task = std::make_unique<Framework::Task>("plugin_task", "", Framework::TaskCondition::EventLoop, 16);
        if (RegisterTask(task.get(), true) != 0) {
            return -1;
        }
        [[maybe_unused]] const Framework::Task* taken = task.release();
        return 0;
    }
};

}  // namespace

extern "C" Framework::Module* CreateModule()
{
    return new PluginModule;
}
