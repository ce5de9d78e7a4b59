// SPDX-License-Identifier: Apache-2.0
// The host's tasks as the module meets them, on the real framework: they keep what they are sent.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "framework/Module.h"
#include "framework/Task.h"
#include "messages/ContainerMessages.h"
#include "messages/FileNotifyMessages.h"
#include "messages/FtraceMessages.h"

namespace Support {

// Filled on a task's thread, read on the test's.
template <class T>
class Inbox {
public:
    void Add(T item)
    {
        const std::lock_guard lock(mutex);
        items.push_back(std::move(item));
    }
    std::vector<T> Take()
    {
        const std::lock_guard lock(mutex);
        return std::exchange(items, {});
    }

private:
    std::mutex mutex;
    std::vector<T> items;
};

// "container_collect_task": keeps registrations, and answers for the containers that the test put in.
class CollectorTask : public Framework::Task,
                      public Engine::ContainerMetaInfo,
                      public Engine::AbstructMessage<Engine::ContainerRegisterMessage>::Receiver {
public:
    CollectorTask() : Task("container_collect_task", "", Framework::TaskCondition::EventLoop, 1024) {}

    int Receive(const Engine::ContainerRegisterMessage& message) override
    {
        registrations.Add(message);
        return 0;
    }

    void Put(const Engine::ContainerInfo& info) { containers[info.id] = std::make_shared<Engine::ContainerInfo>(info); }
    void PutPid(int pid, const std::string& containerId) { pids[pid] = containerId; }

    bool GetContainerById(const std::string& containerId, std::shared_ptr<Engine::ContainerInfo>& info) override
    {
        const auto found = containers.find(containerId);
        if (found == containers.end()) {
            return false;
        }
        info = found->second;
        return true;
    }
    bool GetContainerByPid(int pid, std::shared_ptr<Engine::ContainerInfo>& info) override
    {
        const auto found = pids.find(pid);
        return found != pids.end() && GetContainerById(found->second, info);
    }
    bool IsAvailable() override { return available; }

    Inbox<Engine::ContainerRegisterMessage> registrations;
    bool available = true;

private:
    std::map<std::string, std::shared_ptr<Engine::ContainerInfo>> containers;
    std::map<int, std::string> pids;
};

// "ftrace_task": keeps subscriptions, and refuses the events that the test names.
class TraceTask : public Engine::FtraceTask {
public:
    TraceTask() : FtraceTask("ftrace_task", "", Framework::TaskCondition::EventLoop, 1024) {}

    int Receive(const Engine::FtraceWatchMessage& message) override
    {
        watches.Add(message);
        return refused.count(message.event) == 0 ? 0 : 1;
    }

    std::set<std::string> refused;  // set before the subscriptions
    Inbox<Engine::FtraceWatchMessage> watches;
};

// "filenotify_task".
class FileNotifyTask : public Framework::Task,
                       public Engine::AbstructMessage<Engine::FileNotifyWatchMessage>::Receiver {
public:
    FileNotifyTask() : Task("filenotify_task", "", Framework::TaskCondition::EventLoop, 1024) {}

    int Receive(const Engine::FileNotifyWatchMessage& message) override
    {
        watches.Add(message);
        return 0;
    }

    Inbox<Engine::FileNotifyWatchMessage> watches;
};

// "data_comm_report_task", "cmd_comm_report_task": M is Framework::DataMessage or Framework::CmdMessage.
template <class M>
class ReportTask : public Framework::Task {
public:
    explicit ReportTask(const std::string& name) : Task(name, "", Framework::TaskCondition::EventLoop, 1024) {}

    int HandleMsg(const Framework::Message* message) override
    {
        if (const auto* report = dynamic_cast<const M*>(message); report != nullptr) {
            reports.Add(*report);
        }
        return 0;
    }

    Inbox<M> reports;
};

// "audit_task".
class AuditTask : public Framework::Task, public Engine::AbstructMessage<Engine::AuditUnsubscribeMessage>::Receiver {
public:
    AuditTask() : Task("audit_task", "", Framework::TaskCondition::EventLoop, 1024) {}

    int Receive(const Engine::AuditUnsubscribeMessage& message) override
    {
        unsubscribed.Add(message.requester);
        return 0;
    }

    Inbox<Framework::Task*> unsubscribed;
};

// Registers one task with the engine that it is added to. The framework owns the task.
template <class T>
class HostModule : public Framework::Module {
public:
    explicit HostModule(std::unique_ptr<T> task) : Module("host of " + task->name()), waiting(std::move(task)) {}

    int Init() override
    {
        RegisterTask(waiting.release(), true);
        return Module::Init();
    }

private:
    std::unique_ptr<T> waiting;
};

}  // namespace Support
