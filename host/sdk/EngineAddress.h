// SPDX-License-Identifier: Apache-2.0
// Where a container engine is asked, and by which API: "docker=/var/run/docker.sock".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace SDK {

struct EngineAddress {
    std::string kind;     // "docker"; "podman", which answers as Docker does; or "cri", the Kubernetes interface
    std::string path;     // of its unix socket
    bool isAsked = true;  // for by the operator; else one of the usual places, where there need be none

    // Nothing when the text is no such address: another kind, or a path that is not absolute or that unix(7) has no
    // room for.
    static std::optional<EngineAddress> Parse(std::string_view text);

    // Where engines have their sockets unless they are told otherwise.
    static std::vector<EngineAddress> Usual();

    // As the setting Config::engines has them: a line each.
    static std::string Join(const std::vector<EngineAddress>& engines);
    static std::vector<EngineAddress> Split(std::string_view lines);

    std::string Text() const { return std::string{kind}.append("=").append(path); }
    bool IsCri() const { return kind == "cri"; }
};

}  // namespace SDK
