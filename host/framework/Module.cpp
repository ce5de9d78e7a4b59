// SPDX-License-Identifier: Apache-2.0
#include "framework/Module.h"

#include "LogSite.h"
#include "host/framework/EngineImpl.h"

namespace Framework {

struct Module::Impl {
    std::string name;
};

Module::Module(const std::string& name) : impl(std::make_unique<Impl>(Impl{name}))
{
}

Module::~Module()
{
    if (Engine* engine = Engine::Impl::Current(); engine != nullptr) {
        engine->impl->Disown(*this);
    }
}

int Module::Init()
{
    return 0;
}

int Module::UnInit()
{
    return 0;
}

void Module::RegisterPolicyCallback(const std::string& policyId, AbstractPolicyCallback* callback)
{
    std::unique_ptr<AbstractPolicyCallback> owned(callback);
    Engine* engine = Engine::Impl::Current();
    if (engine == nullptr || owned == nullptr) {
        SDK::RootLog::Error("module %s: no engine takes its callback for policy %s", name(), policyId);
        return;
    }
    engine->impl->callbacks.push_back({policyId, this, std::move(owned)});
}

int Module::RegisterTask(Task* task, bool owned)
{
    Engine* engine = Engine::Impl::Current();
    return engine == nullptr || task == nullptr ? -1 : engine->impl->Register(*task, *this, owned);
}

int Module::UnRegisterTask(const std::string& taskName)
{
    Engine* engine = Engine::Impl::Current();
    return engine == nullptr ? -1 : engine->impl->Unregister(taskName);
}

Task* Module::FindTask(const std::string& taskName) const
{
    const Engine* engine = Engine::Impl::Current();
    return engine == nullptr ? nullptr : engine->impl->registry.Find(taskName);
}

const std::string& Module::name() const
{
    return impl->name;
}

}  // namespace Framework
