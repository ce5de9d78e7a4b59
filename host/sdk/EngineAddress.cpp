// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/EngineAddress.h"

#include <sys/un.h>

#include <algorithm>

namespace SDK {

std::optional<EngineAddress> EngineAddress::Parse(std::string_view text)
{
    const std::size_t end = std::min(text.find('='), text.size());
    const std::string_view kind = text.substr(0, end);
    const std::string_view path = text.substr(std::min(end + 1, text.size()));
    const bool isKind = kind == "docker" || kind == "podman" || kind == "cri";
    const bool isPath = path.starts_with('/') && path.size() < sizeof(sockaddr_un::sun_path) &&
                        path.find('\n') == std::string_view::npos;
    return isKind && isPath ? std::optional<EngineAddress>{{std::string{kind}, std::string{path}}} : std::nullopt;
}

std::vector<EngineAddress> EngineAddress::Usual()
{
    return {{"docker", "/var/run/docker.sock", false},
            {"podman", "/run/podman/podman.sock", false},
            {"cri", "/run/containerd/containerd.sock", false},
            {"cri", "/run/crio/crio.sock", false},
            {"cri", "/run/k3s/containerd/containerd.sock", false}};
}

std::string EngineAddress::Join(const std::vector<EngineAddress>& engines)
{
    std::string lines;
    for (const EngineAddress& engine : engines) {
        lines.append(engine.Text()).append("\n");
    }
    return lines;
}

std::vector<EngineAddress> EngineAddress::Split(std::string_view lines)
{
    std::vector<EngineAddress> engines;
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        if (auto engine = Parse(lines.substr(0, end))) {
            engines.push_back(std::move(*engine));
        }
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
    return engines;
}

}  // namespace SDK
