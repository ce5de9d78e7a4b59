// SPDX-License-Identifier: Apache-2.0
// The agent itself: the application object, which knows every task by name. Modules reach it through
// dynamic_cast<Framework::Engine*>(&Poco::Util::Application::instance()).
#pragma once

#include <Poco/Util/Application.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "framework/Module.h"
#include "framework/Task.h"

namespace Framework {

class Engine : public Poco::Util::Application {
public:
    Engine();
    ~Engine() override;

    // The task registered under `name` anywhere in the agent, null if there is none. Not owned; it stays valid until
    // its module unregisters it. Any thread.
    Task* FindTask(const std::string& name);

    // The rest is for the program that runs the agent, called from its main thread only.

    // Takes over a module, runs its Init and starts those of its tasks that wait for no policy. False, with a log line,
    // when Init fails; the module is kept until Stop all the same, its tasks are forgotten.
    bool AddModule(std::unique_ptr<Module> module);

    // Loads a shared library and adds the module that its CreateModule returns. False, with `error` filled, when there
    // is no such library or symbol, or Init fails. The library stays loaded until the process ends.
    bool LoadModule(const std::string& path, std::string& error);

    // Delivers a policy document to the callback registered under `policyId`: stops the feature's tasks, replaces its
    // policy, hands the tasks their policies and starts them; see Task::IsRestarting. False when no callback took the
    // document.
    bool ApplyPolicy(const std::string& policyId, const std::string& featureName, const std::string& content);

    // Stops all tasks, last started first, then unloads the modules in reverse order. Called by the destructor too.
    void Stop();

    // How far the task has come with its start. NotRunning: no such task, it waits for a policy, or it has stopped.
    enum class StartResult { NotRunning, Starting, Running, InitFailed };

    // Waits until the task's Init is over, at most `timeout`; Starting means that it was not by then.
    StartResult WaitStarted(const std::string& taskName, std::chrono::milliseconds timeout) const;

    // Names of the tasks whose threads run, in start order.
    std::vector<std::string> RunningTasks() const;

    // Since when the task's thread has been at what it does: waiting, a message, a pass. Now, if there is no such task.
    std::chrono::steady_clock::time_point LastProgress(const std::string& taskName) const;

    // Messages that wait in the task's queue; 0 if there is no such task.
    std::size_t Queued(const std::string& taskName) const;

private:
    friend class Module;
    friend class Task;
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Framework
