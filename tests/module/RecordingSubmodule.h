// SPDX-License-Identifier: Apache-2.0
// A detector that notes its calls in a journal shared with others.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "BaseSubmodule.h"
#include "messages/FileNotifyMessages.h"

namespace Support {

class RecordingSubmodule : public Engine::BaseSubmodule {
public:
    using Journal = std::vector<std::string>;

    RecordingSubmodule(Engine::ContainerEscapeDetectTask& task, std::string name, Engine::ContainerMetaInfo* metaInfo,
                       Journal& journal)
        : BaseSubmodule(task, name, metaInfo), name(std::move(name)), journal(journal)
    {
    }

    using BaseSubmodule::Init;

    int Init() override
    {
        Note("init");
        return 1;
    }
    void DeInit() override
    {
        Note("deinit");
        BaseSubmodule::DeInit();
    }
    void Reconfigure(const Engine::ContainerEscapeDetectPolicyContent& content) override
    {
        Note("reconfigure " + std::to_string(content.highRiskCalls.size()));
    }
    int HandleFileNotifyMsg(Engine::FileNotifyMessage* message) override
    {
        Note("file " + std::to_string(message->GetEventProcessId()) + message->GetEventFilePath());
        return fileResult;
    }
    bool HandleEvent(const Engine::FtraceMessage& message) override
    {
        Note(message.name());
        return false;
    }

    int fileResult = 0;

private:
    void Note(const std::string& what) { journal.push_back(name + " " + what); }

    std::string name;
    Journal& journal;
};

}  // namespace Support
