// SPDX-License-Identifier: Apache-2.0
// The least that an agent's module has to be: a class, and the function that makes one.
#include <LogSite.h>
#include <framework/Module.h>

class HelloModule : public Framework::Module {
public:
    HelloModule() : Framework::Module("hello_module") {}

    int Init() override
    {
        SDK::RootLog::Information("%s is loaded", name());
        return Framework::Module::Init();
    }
};

extern "C" Framework::Module* CreateModule()
{
    return new HelloModule;
}
