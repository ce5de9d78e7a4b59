// SPDX-License-Identifier: Apache-2.0
#include <Poco/Util/Application.h>

#include "framework/Engine.h"
#include "host/container/ContainerCollectTask.h"
#include "host/container/EngineDocuments.h"
#include "messages/ContainerMessages.h"
#include "sdk/LoggerUtils.h"

bool DockerUtil::GetContainerInfo(SDK::DockerClient& /*client*/, const std::string& containerId,
                                  Engine::ContainerInfo& info)
{
    if (!Engine::EngineDocuments::IsContainerId(containerId)) {
        return false;
    }
    auto* engine = dynamic_cast<Framework::Engine*>(&Poco::Util::Application::instance());
    auto* task = engine == nullptr ? nullptr : engine->FindTask(Engine::ContainerCollectTask::taskName);
    auto* collector = dynamic_cast<Engine::ContainerMetaInfo*>(task);
    std::shared_ptr<Engine::ContainerInfo> known;
    if (collector != nullptr && collector->GetContainerById(containerId, known)) {
        info = *known;
    } else {
        info = {};
        info.id = containerId;
    }
    return true;
}

Poco::Logger* DockerUtil::GetLoggerPtr()
{
    static Poco::Logger* const logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("container_module", false);
    return logger;
}
