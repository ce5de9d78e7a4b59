// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "messages/FileNotifyMessages.h"
#include "tests/support/AgentFixture.h"
#include "tests/support/DetectTask.h"

namespace Support {

class DetectFixture : public AgentFixture {
protected:
    DetectFixture()
    {
        host.AddFakes();
        task = std::make_unique<DetectTask>(host.Metadata());
    }

    int Receive(const TraceEvent& event) { return task->Receive(event.Message()); }

    std::unique_ptr<DetectTask> task;
};

// A detector that notes its calls in the host's journal.
class RecordingSubmodule : public Engine::BaseSubmodule {
public:
    RecordingSubmodule(Engine::ContainerEscapeDetectTask& task, Engine::ContainerMetaInfo* metadata, FakeHost& host,
                       std::string name)
        : BaseSubmodule(task, name, metadata), host(host), name(std::move(name))
    {
    }

    int Init() override { return Note("init"); }
    void DeInit() override { Note("deinit"); }
    void Reconfigure(const Engine::ContainerEscapeDetectPolicyContent& content) override
    {
        Note("reconfigure " + std::to_string(content.highRiskCalls.size()));
    }
    int HandleFileNotifyMsg(Engine::FileNotifyMessage* message) override
    {
        return Note(std::to_string(message->GetEventProcessId()) + message->GetEventFilePath());
    }
    int Receive(const Engine::FtraceMessage& message) override { return Note(message.name()); }
    bool HandleEvent(const Engine::FtraceMessage& /*message*/) override { return true; }
    void HandleProcExit(int pid) override { Note("forgets " + std::to_string(pid)); }
    void Forget(Engine::ScopeKey container) override { Note("forgets container " + std::to_string(container)); }

private:
    int Note(const std::string& what)
    {
        host.journal.push_back(name + " " + what);
        return 0;
    }

    FakeHost& host;
    std::string name;
};

}  // namespace Support
