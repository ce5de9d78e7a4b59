// SPDX-License-Identifier: Apache-2.0
#include <Poco/Util/Application.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "framework/Engine.h"
#include "host/container/EngineDocuments.h"
#include "host/sdk/Counters.h"
#include "messages/ContainerMessages.h"
#include "sdk/LoggerUtils.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int httpOk = 200;

// When an engine may be asked again: not at all for a while after it did not answer, and not about a container that it
// has just called unknown. Keyed by socket path and request.
class Manners {
public:
    bool MayAsk(const std::string& what, Clock::time_point now)
    {
        const std::lock_guard lock{mutex};
        const auto found = notBefore.find(what);
        return found == notBefore.end() || now >= found->second;
    }

    void Wait(const std::string& what, Clock::time_point now)
    {
        const std::lock_guard lock{mutex};
        if (notBefore.size() >= maxKept) {
            notBefore.clear();
        }
        notBefore[what] = now + pause;
    }

private:
    static constexpr std::size_t maxKept = 1024;
    static constexpr std::chrono::seconds pause{5};

    std::mutex mutex;
    std::unordered_map<std::string, Clock::time_point> notBefore;
};

Manners& EngineManners()
{
    static Manners manners;
    return manners;
}

bool AskCollector(const std::string& containerId, Engine::ContainerInfo& info)
{
    auto* engine = dynamic_cast<Framework::Engine*>(&Poco::Util::Application::instance());
    Framework::Task* task = engine == nullptr ? nullptr : engine->FindTask("container_collect_task");
    auto* collector = dynamic_cast<Engine::ContainerMetaInfo*>(task);
    std::shared_ptr<Engine::ContainerInfo> known;
    if (collector == nullptr || !collector->GetContainerById(containerId, known)) {
        return false;
    }
    info = *known;
    return true;
}

bool AskEngine(const SDK::DockerClient& client, const std::string& containerId, Engine::ContainerInfo& info)
{
    const std::string& socket = client.SocketPath();
    const std::string container = socket + ' ' + containerId;
    const Clock::time_point now = Clock::now();
    if (!EngineManners().MayAsk(socket, now) || !EngineManners().MayAsk(container, now)) {
        return false;
    }
    const SDK::DockerClient::Reply reply = client.Get("/containers/" + containerId + "/json");
    if (reply.status == 0 || !reply.error.empty()) {
        ++SDK::Counters::Get(SDK::CounterName::engineFailures);
        EngineManners().Wait(socket, Clock::now());
        return false;
    }
    std::optional<Engine::EngineDocuments::Inspected> inspected;
    if (reply.status == httpOk) {
        inspected = Engine::EngineDocuments::ParseInspected(reply.body);
    }
    if (!inspected) {
        EngineManners().Wait(container, now);
        return false;
    }
    info = std::move(inspected->info);
    return true;
}

}  // namespace

bool DockerUtil::GetContainerInfo(SDK::DockerClient& client, const std::string& containerId,
                                  Engine::ContainerInfo& info)
{
    if (!Engine::EngineDocuments::IsContainerId(containerId)) {
        return false;
    }
    if (!AskCollector(containerId, info) && !AskEngine(client, containerId, info)) {
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
