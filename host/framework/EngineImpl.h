// SPDX-License-Identifier: Apache-2.0
// What the engine keeps, and how modules and tasks reach it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/Engine.h"
#include "host/framework/TaskRegistry.h"

namespace Framework {

// Thread: the program's main thread, but for the registry and for what is marked otherwise.
struct Engine::Impl {
    struct Callback {
        std::string policyId;
        const Module* module;
        std::unique_ptr<AbstractPolicyCallback> callback;
    };

    // The engine that exists now, null if there is none. Any thread.
    static Engine* Current();
    static void SetCurrent(Engine* engine);

    // For modules. A task that is refused (-1) still belongs to its module. Unregister also on the thread of the task,
    // which ends after the current call of Run, and only then may the module delete the task; one that the framework
    // owns is released when the thread has been joined.
    int Register(Task& task, const Module& module, bool owned);
    int Unregister(const std::string& taskName);
    void Disown(const Module& module);  // what the module did not withdraw itself

    // A feature's policy is in force from the first delivery on.
    bool MayStart(const Task& task) const;
    void Start(TaskEntry& entry);
    void Stop(TaskEntry& entry);
    void StopAndRemove(const TaskRegistry::EntryPointer& entry);
    void RemoveLeft();  // tasks that unregistered themselves and whose threads are over
    static void SortByStart(std::vector<TaskRegistry::EntryPointer>& entries);
    void StartTasksOf(const Module& module);

    bool Invoke(const Callback& callback, const std::string& feature, const std::string& content, Policy*& result);
    void PutInForce(const std::string& feature, Policy* policy);
    void Restart(const std::string& feature, Policy* policy);

    TaskRegistry registry;
    std::uint64_t lastStart = 0;
    const Module* initialising = nullptr;  // its tasks start after its Init
    std::vector<std::unique_ptr<Module>> modules;
    std::vector<Callback> callbacks;
    std::map<std::string, std::unique_ptr<Policy>> policies;  // in force, by feature
};

}  // namespace Framework
