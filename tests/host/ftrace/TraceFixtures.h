// SPDX-License-Identifier: Apache-2.0
// What cases about trace events share: a task that keeps the events it gets.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Module.h"
#include "framework/Task.h"
#include "messages/FtraceMessages.h"

namespace Engine::Testing {

struct SeenEvent {
    std::string name;
    int pid;
    std::chrono::nanoseconds when;
};

// Keeps what it receives; waiting is for any other thread.
class CollectingTask : public Framework::Task, public AbstractMessage<FtraceMessage>::Receiver {
public:
    explicit CollectingTask(const std::string& name, unsigned int capacity = 1024)
        : Task(name, "", Framework::TaskCondition::EventLoop, capacity)
    {
    }

    int Receive(const FtraceMessage& event) override
    {
        const std::lock_guard lock{mutex};
        events.push_back({event.name(), static_cast<int>(event.get_number("common_pid")), event.When()});
        changed.notify_all();
        return 0;
    }

    // Whether `enough` became true of the events seen so far. The limit is for a case that fails.
    bool WaitFor(const std::function<bool(const std::vector<SeenEvent>&)>& enough)
    {
        constexpr std::chrono::seconds limit{20};
        std::unique_lock lock{mutex};
        return changed.wait_for(lock, limit, [&] { return enough(events); });
    }

    std::vector<SeenEvent> Events()
    {
        const std::lock_guard lock{mutex};
        return events;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<SeenEvent> events;
};

// Registers one task, which the framework then owns.
class TaskModule : public Framework::Module {
public:
    explicit TaskModule(std::unique_ptr<Framework::Task> task) : Module("of " + task->name()), waiting(std::move(task))
    {
    }

    int Init() override
    {
        RegisterTask(waiting.release(), true);
        return Module::Init();
    }

private:
    std::unique_ptr<Framework::Task> waiting;
};

}  // namespace Engine::Testing
