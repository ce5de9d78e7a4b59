// SPDX-License-Identifier: Apache-2.0
// A plug-in of the agent: a shared library that exports `extern "C" Framework::Module* CreateModule()`.
//
// Ownership: the agent owns the module that CreateModule returns; it calls Init once after loading and UnInit once
// before
//            it deletes the module. The library stays loaded until the process ends.
// Thread:    one thread loads and unloads all modules; FindTask is for any thread.
#pragma once

#include <memory>
#include <string>

#include "framework/Policy.h"
#include "framework/Task.h"

namespace Framework {

class Module {
public:
    // `name`: for the log; nothing looks it up.
    explicit Module(const std::string& name);
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    virtual ~Module();

    // 0 means success; after any other result of Init the module's tasks are forgotten. Overrides do their own work
    // first and return the base's result.
    virtual int Init();
    virtual int UnInit();

    // Takes ownership of `callback` and calls it for every policy document delivered under `policyId`.
    void RegisterPolicyCallback(const std::string& policyId, AbstractPolicyCallback* callback);

    // Makes the task known under its name; the framework starts it when its feature has a policy, at once if it has no
    // feature; inside Init only after that has succeeded. `owned`: whether the framework deletes it. 0, or -1 when the
    // name is taken; the task then still belongs to the caller.
    int RegisterTask(Task* task, bool owned);

    // Stops the task's thread, waits for its UnInit and forgets the task. Accepts names that were never registered.
    // 0, or -1 when there was no such task. On the task's own thread there can be no waiting: the name is free at once,
    // the thread ends after the current call of Run, and only then may a task that the module owns be deleted.
    int UnRegisterTask(const std::string& taskName);

    // The task registered under that name by any module, null if there is none. Not owned.
    Task* FindTask(const std::string& taskName) const;

    const std::string& name() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Framework
