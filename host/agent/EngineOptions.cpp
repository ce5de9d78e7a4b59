// SPDX-License-Identifier: Apache-2.0
#include "host/agent/EngineOptions.h"

#include <cerrno>
#include <utility>

#include "host/agent/Console.h"
#include "host/agent/ListOption.h"
#include "host/agent/Options.h"
#include "host/sdk/Config.h"
#include "host/sdk/EngineSocket.h"

namespace Agent {

void AddEngineOption(CLI::App& command, Options& options)
{
    AddList(command, "--engine", options.engines, "KIND=PATH",
            "A container engine that knows names and images, by its socket: docker=PATH, podman=PATH, cri=PATH "
            "(containerd, CRI-O); as often as needed. Without it, all that are at the usual places; none: no engine is "
            "asked, containers' bundles alone give names",
            [](const std::string& text) {
                const bool isOne = text == SDK::Config::noEngine || SDK::EngineAddress::Parse(text);
                return isOne ? "" : text + ": is not docker=PATH, podman=PATH, cri=PATH or none, with an absolute path";
            });
}

std::vector<SDK::EngineAddress> EnginesOf(const Options& options)
{
    if (options.engines.empty() && options.dockerSocket.empty()) {
        return SDK::EngineAddress::Usual();
    }
    std::vector<SDK::EngineAddress> engines;
    if (!options.dockerSocket.empty() && options.dockerSocket != SDK::Config::noEngine) {
        engines.push_back({"docker", options.dockerSocket});
    }
    for (const std::string& text : options.engines) {
        if (text == SDK::Config::noEngine && options.engines.size() > 1) {
            throw BadInput("--engine none: goes with no other --engine");
        }
        if (auto engine = SDK::EngineAddress::Parse(text)) {  // else it is noEngine
            engines.push_back(std::move(*engine));
        }
    }
    return engines;
}

std::vector<std::string> MissingEngines(const std::vector<SDK::EngineAddress>& engines)
{
    std::vector<std::string> missing;
    std::string usual;
    for (const SDK::EngineAddress& engine : engines) {
        const bool isThere = SDK::EngineSocket::Connect(engine.path) || errno == EAGAIN;
        if (isThere && !engine.isAsked) {
            return {};
        }
        if (!isThere && engine.isAsked) {
            missing.push_back(engine.path);
        } else if (!isThere) {
            usual.append(usual.empty() ? "" : ", ").append(engine.path);
        }
    }
    missing.insert(missing.end(), usual.empty() ? 0 : 1, usual);
    for (std::string& text : missing) {
        text.insert(0, "no container engine at ")
            .append(", alarms go without names of containers and images until there is one");
    }
    return missing;
}

}  // namespace Agent
