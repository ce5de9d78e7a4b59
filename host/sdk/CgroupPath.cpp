// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/CgroupPath.h"

#include <algorithm>
#include <charconv>

namespace SDK {

namespace {

constexpr std::size_t idLength = 64;        // Docker, containerd's CRI plug-in, CRI-O, Podman: 32 random bytes in hex
constexpr std::size_t buildIdLength = 25;   // BuildKit's identity.NewID(): 17 random bytes in base 36
constexpr std::size_t maxNameLength = 255;  // NAME_MAX

constexpr std::string_view hex = "0123456789abcdef";
constexpr std::string_view base36 = "0123456789abcdefghijklmnopqrstuvwxyz";
constexpr std::string_view nameCharacters = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ._-";

bool ConsistsOf(std::string_view text, std::string_view characters)
{
    return text.find_first_not_of(characters) == std::string_view::npos;
}

std::string_view WithoutEnd(std::string_view text, std::string_view end)
{
    return text.ends_with(end) ? text.substr(0, text.size() - end.size()) : text;
}

// "<id>", "<prefix>-<id>" (a scope of systemd, or Podman and CRI-O with plain groups) or "<slice>:<prefix>:<id>" (a
// systemd-style path given to a runtime that uses plain groups). Any prefix will do: engines and users choose it, and
// no other program names a group by 64 digits. conmon monitors a container for the engine and belongs to the host.
std::string_view HexId(std::string_view name)
{
    if (name.size() < idLength) {
        return {};
    }
    const std::string_view id = name.substr(name.size() - idLength);
    const std::string_view prefix = name.substr(0, name.size() - idLength);
    if (!prefix.empty() && prefix.back() != '-' && prefix.back() != ':') {
        return {};
    }
    if (prefix.ends_with("conmon-") || prefix.ends_with("conmon:")) {
        return {};
    }
    return ConsistsOf(id, hex) ? id : std::string_view{};
}

// A build step's container: "buildkit/<id>" or "buildkit-<id>".
std::string_view BuildId(std::string_view name, std::string_view parent)
{
    constexpr std::string_view prefix = "buildkit-";
    if (name.starts_with(prefix)) {
        name.remove_prefix(prefix.size());
    } else if (parent != "buildkit") {
        return {};
    }
    const bool isId = name.size() == buildIdLength && ConsistsOf(name, base36);
    return isId ? name : std::string_view{};
}

// "lxc.payload.NAME" (LXC 4 and later, Incus), "lxc.payload/NAME", "lxc/NAME" (before). lxc.monitor belongs to the
// host.
std::string_view LxcName(std::string_view name, std::string_view parent)
{
    constexpr std::string_view prefix = "lxc.payload.";
    if (name.starts_with(prefix)) {
        name.remove_prefix(prefix.size());
    } else if (parent != "lxc" && parent != "lxc.payload") {
        return {};
    }
    const bool isName =
        !name.empty() && name.size() <= maxNameLength && name != ".." && ConsistsOf(name, nameCharacters);
    return isName ? name : std::string_view{};
}

std::string_view IdOf(std::string_view component, std::string_view parent)
{
    const std::string_view name = WithoutEnd(component, ".scope");
    if (const std::string_view id = HexId(name); !id.empty()) {
        return id;
    }
    if (const std::string_view id = BuildId(name, parent); !id.empty()) {
        return id;
    }
    return LxcName(component, parent);
}

std::string_view CutUpTo(std::string_view& text, char separator)
{
    const std::string_view part = text.substr(0, text.find(separator));
    text.remove_prefix(std::min(text.size(), part.size() + 1));
    return part;
}

}  // namespace

std::vector<CgroupPath::Part> CgroupPath::ContainerParts(std::string_view path)
{
    std::vector<Part> parts;
    std::string_view parent;
    bool isPod = false;
    for (std::string_view rest = path; !rest.empty();) {
        const std::string_view component = CutUpTo(rest, '/');
        if (const std::string_view id = IdOf(component, parent); !id.empty()) {
            // Podman's pods, with plain groups: "libpod_parent/<pod>/libpod-<container>". A pod has no process itself.
            if (isPod) {
                parts.clear();
            }
            isPod = parent == "libpod_parent" && component == id;
            parts.push_back({id, static_cast<std::size_t>(component.data() + component.size() - path.data())});
        }
        parent = component;
    }
    return parts;
}

std::string_view CgroupPath::ContainerId(std::string_view path)
{
    const std::vector<Part> parts = ContainerParts(path);
    return parts.empty() ? std::string_view{} : parts.front().id;
}

std::vector<Cgroup> CgroupPath::Groups(std::string_view text)
{
    std::vector<Cgroup> groups;
    while (!text.empty()) {
        std::string_view line = CutUpTo(text, '\n');
        const std::string_view number = CutUpTo(line, ':');
        CutUpTo(line, ':');  // its controllers
        int hierarchy = 0;
        std::from_chars(number.data(), number.data() + number.size(), hierarchy);
        // Of a dead process in a group that is removed (proc_cgroup_show() in kernel/cgroup/cgroup.c).
        if (line.starts_with('/')) {
            groups.push_back({hierarchy, std::string{WithoutEnd(line, " (deleted)")}, 0});
        }
    }
    return groups;
}

std::string CgroupPath::ContainerIdOfFile(std::string_view text)
{
    for (const Cgroup& group : Groups(text)) {
        if (const std::string_view id = ContainerId(group.path); !id.empty()) {
            return std::string{id};
        }
    }
    return {};
}

}  // namespace SDK
