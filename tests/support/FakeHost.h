// SPDX-License-Identifier: Apache-2.0
// The agent around a module: the real framework, and the host's tasks as fakes that keep what they are asked for. A
// message to a fake is handled on the sender's thread before the send returns, so a test that sends waits for nothing.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/Engine.h"
#include "messages/ContainerMessages.h"
#include "messages/FileNotifyMessages.h"
#include "messages/FtraceMessages.h"
#include "sdk/ProcessUtils.h"

namespace Support {

struct FakeHost {
    // What the fakes were asked for, in order; an end has a leading minus:
    //   sched:sched_process_fork    an event to watch
    //   /etc 2 8 notifyOnly         a path, its event masks, its options
    //   notices                     of container processes
    std::vector<std::string> journal;
    std::vector<std::string> reports;  // task, type (of a command: its id) and content, with blanks between

    std::string refusedEvent;
    std::map<std::string, Engine::ContainerInfo> containers;  // by id, known to "container_collect_task"
    bool isMetadataAvailable = true;

    // Each of the host's tasks. One that gets what is meant for another says so in the journal.
    class FakeTask final : public Engine::FtraceTask,
                           public Engine::ContainerMetaInfo,
                           public Engine::AbstractMessage<Engine::ContainerRegisterMessage>::Receiver,
                           public Engine::AbstractMessage<Engine::FileNotifyWatchMessage>::Receiver {
    public:
        FakeTask(FakeHost& host, const std::string& name)
            : FtraceTask(name, "", Framework::TaskCondition::EventLoop, 16), host(host)
        {
        }

        int EnqueueMsg(std::shared_ptr<Framework::Message>& message) override
        {
            const int result = FtraceTask::EnqueueMsg(message);
            BulkConsumeMsg(1);
            return result;
        }
        int Run() override  // leaves the messages to EnqueueMsg
        {
            Waiter().WaitAndHandleEvent(1000, 1);
            return 0;
        }

        int Receive(const Engine::FtraceWatchMessage& message) override
        {
            Note("ftrace_task", !message.unwatch, message.system + ":" + message.event);
            return message.event == host.refusedEvent ? 1 : 0;
        }
        int Receive(const Engine::FileNotifyWatchMessage& message) override
        {
            std::string line = message.path;
            for (const unsigned int mask : message.eventMasks) {
                line += " " + std::to_string(mask);
            }
            line += message.options.permission ? " permission" : "";
            line += message.options.mount ? " mount" : "";
            line += message.options.notifyOnly ? " notifyOnly" : "";
            line += message.options.keepOrder ? " keepOrder" : "";
            line += message.options.changes ? " changes" : "";
            return Note("filenotify_task", message.watch, line);
        }
        int Receive(const Engine::ContainerRegisterMessage& message) override
        {
            return Note("container_collect_task", message.subscribe, "notices");
        }
        int HandleMsg(const Framework::Message* message) override
        {
            const auto* data = dynamic_cast<const Framework::DataMessage*>(message);
            const auto* command = dynamic_cast<const Framework::CmdMessage*>(message);
            host.reports.push_back(
                name() + " " +
                (data != nullptr ? data->Type() + " " + data->Content() : command->Id() + " " + command->Content()));
            return 0;
        }

        bool GetContainerById(const std::string& id, std::shared_ptr<Engine::ContainerInfo>& info) override
        {
            const auto found = host.containers.find(id);
            info = found == host.containers.end() ? info : std::make_shared<Engine::ContainerInfo>(found->second);
            return found != host.containers.end();
        }
        bool GetContainerByPid(int pid, std::shared_ptr<Engine::ContainerInfo>& info) override
        {
            std::string id;
            return SDK::ProcessUtils::GetContainerID(pid, id) == 0 && GetContainerById(id, info);
        }
        bool IsAvailable() override { return host.isMetadataAvailable; }

    private:
        int Note(const std::string& receiver, bool begins, const std::string& what)
        {
            host.journal.push_back((name() == receiver ? "" : name() + " got ") + (begins ? "" : "-") + what);
            return 0;
        }

        FakeHost& host;
    };

    void Add(std::unique_ptr<Framework::Task> task) { module.RegisterTask(task.release(), true); }
    void AddFake(const std::string& name) { Add(std::make_unique<FakeTask>(*this, name)); }
    void AddFakes()
    {
        for (const char* name : {"container_collect_task", "ftrace_task", "filenotify_task", "audit_task",
                                 "data_comm_report_task", "cmd_comm_report_task"}) {
            AddFake(name);
        }
    }
    auto* Metadata() { return dynamic_cast<Engine::ContainerMetaInfo*>(agent.FindTask("container_collect_task")); }
    std::vector<std::string> TakeJournal() { return std::exchange(journal, {}); }

    Framework::Engine agent;
    Framework::Module module{"host"};  // the last: its tasks use the rest, and go with it
};

}  // namespace Support
