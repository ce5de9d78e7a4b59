// SPDX-License-Identifier: Apache-2.0
#include "host/framework/EngineImpl.h"

#include <algorithm>
#include <atomic>

#include "LogSite.h"
#include "host/framework/ExceptionText.h"
#include "host/framework/TaskImpl.h"
#include "host/sdk/Realtime.h"

namespace Framework {

namespace {

std::atomic<Engine*> current{nullptr};

}  // namespace

Engine* Engine::Impl::Current()
{
    return current;
}

void Engine::Impl::SetCurrent(Engine* engine)
{
    current = engine;
}

int Engine::Impl::Register(Task& task, const Module& module, bool owned)
{
    RemoveLeft();
    if (registry.Find(task.name()) != nullptr) {
        return -1;
    }
    const auto entry = std::make_shared<TaskEntry>();
    entry->task = &task;
    entry->module = &module;
    entry->owned = owned;
    entry->state = task.impl->state;
    task.impl->accepting = MayStart(task);
    if (!registry.Add(entry)) {
        return -1;
    }
    if (initialising != &module && MayStart(task)) {
        Start(*entry);
    }
    return 0;
}

int Engine::Impl::Unregister(const std::string& taskName)
{
    const auto entry = registry.FindEntry(taskName);
    if (entry == nullptr) {
        return -1;
    }
    if (entry->task->impl->OnTaskThread()) {
        registry.Hide(entry);
        entry->task->cancel();
        return 0;
    }
    StopAndRemove(entry);
    RemoveLeft();
    return 0;
}

void Engine::Impl::Disown(const Module& module)
{
    auto entries = registry.All();
    std::erase_if(entries, [&module](const auto& entry) { return entry->module != &module; });
    std::for_each(entries.rbegin(), entries.rend(), [this](const auto& entry) { StopAndRemove(entry); });
    std::erase_if(callbacks, [&module](const Callback& callback) { return callback.module == &module; });
}

bool Engine::Impl::MayStart(const Task& task) const
{
    return task.FeatureName().empty() || policies.contains(task.FeatureName());
}

void Engine::Impl::Start(TaskEntry& entry)
{
    Task& task = *entry.task;
    const auto found = policies.find(task.FeatureName());
    Policy* const feature = found == policies.end() ? nullptr : found->second.get();
    const auto* const composite = dynamic_cast<const CompositePolicy*>(feature);
    task.featurePolicy.Set(feature);
    task.taskPolicy.Set(composite == nullptr ? nullptr : composite->Find(task.name()));
    entry.startNumber = ++lastStart;
    task.impl->Start(task);
}

// On the task's own thread this only asks for the end, which cannot be waited for there.
void Engine::Impl::Stop(TaskEntry& entry)
{
    Task& task = *entry.task;
    if (!task.impl->thread.joinable()) {
        task.impl->accepting = false;
        task.impl->DropQueued();
        return;
    }
    task.cancel();
    if (!task.impl->OnTaskThread()) {
        task.impl->Join(task);
    }
}

void Engine::Impl::StopAndRemove(const TaskRegistry::EntryPointer& entry)
{
    Stop(*entry);
    registry.Remove(entry);
    if (entry->owned) {
        entry->task->release();
    }
}

void Engine::Impl::RemoveLeft()
{
    for (const auto& entry : registry.All()) {
        if (entry->hidden && RunState::IsOver(entry->state->Get())) {
            StopAndRemove(entry);
        }
    }
}

void Engine::Impl::SortByStart(std::vector<TaskRegistry::EntryPointer>& entries)
{
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a->startNumber < b->startNumber; });
}

void Engine::Impl::StartTasksOf(const Module& module)
{
    for (const auto& entry : registry.All()) {
        if (entry->module == &module && MayStart(*entry->task)) {
            Start(*entry);
        }
    }
}

// False when this callback took nothing; the policy in force then stays what it was, its mark included.
bool Engine::Impl::Invoke(const Callback& callback, const std::string& feature, const std::string& content,
                          Policy*& result)
{
    const auto found = policies.find(feature);
    Policy* const inForce = found == policies.end() ? nullptr : found->second.get();
    Policy* slot = inForce;
    try {
        result = callback.callback->invoke(feature, content, slot);
    } catch (...) {
        SDK::RootLog::Error("the policy of the feature %s was not taken: %s", feature, CurrentExceptionText());
        result = nullptr;
    }
    if (result == nullptr && inForce != nullptr) {
        inForce->changed = false;
    }
    return result != nullptr;
}

void Engine::Impl::PutInForce(const std::string& feature, Policy* policy)
{
    std::unique_ptr<Policy>& slot = policies[feature];
    if (slot.get() != policy) {
        slot.reset(policy);
    }
}

// What arrives for the feature's tasks meanwhile waits in their queues.
void Engine::Impl::Restart(const std::string& feature, Policy* policy)
{
    auto entries = registry.All();
    std::erase_if(entries, [&feature](const auto& entry) { return entry->task->FeatureName() != feature; });
    SortByStart(entries);
    const SDK::Realtime::Loan promptly;  // a storm must not keep detection stopped
    for (const auto& entry : entries) {
        entry->task->impl->restarting = !entry->hidden && entry->task->impl->thread.joinable();
    }
    std::for_each(entries.rbegin(), entries.rend(), [this](const auto& entry) { Stop(*entry); });
    PutInForce(feature, policy);
    for (const auto& entry : registry.All()) {
        if (!entry->hidden && entry->task->FeatureName() == feature) {
            Start(*entry);
        }
    }
}

}  // namespace Framework
