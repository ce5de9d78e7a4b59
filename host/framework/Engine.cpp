// SPDX-License-Identifier: Apache-2.0
#include "framework/Engine.h"

#include <dlfcn.h>

#include <algorithm>

#include "LogSite.h"
#include "host/framework/EngineImpl.h"
#include "host/framework/ExceptionText.h"
#include "host/framework/TaskImpl.h"

namespace Framework {

namespace {

using Phase = RunState::Phase;

// Init or UnInit of a module. What it throws is logged and counts as -1.
int Call(Module& module, int (Module::*operation)(), const char* what)
{
    try {
        const int result = (module.*operation)();
        if (result != 0) {
            SDK::RootLog::Error("module %s: %s returned %d", module.name(), what, result);
        }
        return result;
    } catch (...) {
        SDK::RootLog::Error("module %s: %s failed: %s", module.name(), what, CurrentExceptionText());
        return -1;
    }
}

// Never closed again: messages, policies and exceptions of its classes may outlive every module.
std::unique_ptr<Module> Create(const std::string& path, std::string& error)
{
    void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* symbol = library == nullptr ? nullptr : ::dlsym(library, "CreateModule");
    if (symbol == nullptr) {
        const char* text = ::dlerror();
        error = text != nullptr ? text : path + ": CreateModule is null";
        return nullptr;
    }
    try {
        std::unique_ptr<Module> module(reinterpret_cast<Module* (*)()>(symbol)());
        if (module == nullptr) {
            error = path + ": CreateModule returned none";
        }
        return module;
    } catch (...) {
        error = path + ": CreateModule failed: " + CurrentExceptionText();
        return nullptr;
    }
}

}  // namespace

Engine::Engine() : impl(std::make_unique<Impl>())
{
    Impl::SetCurrent(this);
}

Engine::~Engine()
{
    Stop();
    Impl::SetCurrent(nullptr);
}

Task* Engine::FindTask(const std::string& name)
{
    return impl->registry.Find(name);
}

bool Engine::AddModule(std::unique_ptr<Module> module)
{
    Module& added = *module;
    impl->modules.push_back(std::move(module));
    impl->initialising = &added;
    const int result = Call(added, &Module::Init, "Init");
    impl->initialising = nullptr;
    if (result != 0) {
        impl->Disown(added);
        return false;
    }
    impl->StartTasksOf(added);
    return true;
}

bool Engine::LoadModule(const std::string& path, std::string& error)
{
    std::unique_ptr<Module> module = Create(path, error);
    if (module == nullptr) {
        return false;
    }
    const std::string name = module->name();
    if (!AddModule(std::move(module))) {
        error = path + ": Init of " + name + " failed";
        return false;
    }
    return true;
}

// A module that has several features, or shares its policy id with another module, answers null for what is not its
// own.
bool Engine::ApplyPolicy(const std::string& policyId, const std::string& featureName, const std::string& content)
{
    for (const Impl::Callback& callback : impl->callbacks) {
        Policy* policy = nullptr;
        if (callback.policyId == policyId && impl->Invoke(callback, featureName, content, policy)) {
            impl->Restart(featureName, policy);
            return true;
        }
    }
    SDK::RootLog::Warning("no module takes the policy %s of the feature %s, the old one stays", policyId, featureName);
    return false;
}

void Engine::Stop()
{
    auto entries = impl->registry.All();
    Impl::SortByStart(entries);
    std::for_each(entries.rbegin(), entries.rend(), [this](const auto& entry) { impl->Stop(*entry); });
    impl->RemoveLeft();
    while (!impl->modules.empty()) {
        Call(*impl->modules.back(), &Module::UnInit, "UnInit");
        impl->modules.pop_back();
    }
    impl->policies.clear();
}

Engine::StartResult Engine::WaitStarted(const std::string& taskName, std::chrono::milliseconds timeout) const
{
    const auto entry = impl->registry.FindEntry(taskName);
    switch (entry == nullptr ? Phase::Idle : entry->state->WaitStarted(timeout)) {
        case Phase::Starting:
            return StartResult::Starting;
        case Phase::Running:
            return StartResult::Running;
        case Phase::Failed:
            return StartResult::InitFailed;
        default:
            return StartResult::NotRunning;
    }
}

std::chrono::steady_clock::time_point Engine::LastProgress(const std::string& taskName) const
{
    const auto now = std::chrono::steady_clock::now();
    const auto entry = impl->registry.FindEntry(taskName);
    return entry == nullptr ? now : entry->task->impl->lastProgress.load();
}

std::size_t Engine::Queued(const std::string& taskName) const
{
    const auto entry = impl->registry.FindEntry(taskName);
    return entry == nullptr ? 0 : entry->task->impl->queue.Size();
}

std::vector<std::string> Engine::RunningTasks() const
{
    auto entries = impl->registry.All();
    std::erase_if(entries, [](const auto& entry) { return entry->hidden || RunState::IsOver(entry->state->Get()); });
    Impl::SortByStart(entries);
    std::vector<std::string> names;
    names.reserve(entries.size());
    for (const auto& entry : entries) {
        names.push_back(entry->task->name());
    }
    return names;
}

}  // namespace Framework
