// SPDX-License-Identifier: Apache-2.0
// The smallest module that can be loaded: one task, owned by the framework.
#include "framework/Module.h"

namespace {

class PluginModule : public Framework::Module {
public:
    PluginModule() : Module("plugin_module") {}
    int Init() override
    {
        return RegisterTask(new Framework::Task("plugin_task", "", Framework::TaskCondition::EventLoop, 16), true);
    }
};

}  // namespace

extern "C" Framework::Module* CreateModule()
{
    return new PluginModule;
}
