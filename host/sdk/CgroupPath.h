// SPDX-License-Identifier: Apache-2.0
// Which container a control group belongs to, by its path: the forms that the common engines give their groups.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "host/sdk/SystemView.h"

namespace SDK {

class CgroupPath {
public:
    // The components of a cgroup path, as /proc/<pid>/cgroup or the cgroup_attach_task event gives it, that have the
    // form of a container's group, outermost first. One alone is nearly always it. Of several, which count is not to be
    // told from the path: an engine may have been told to make its group below another container's, or a container
    // have made groups below its own.
    struct Part {
        std::string_view id;
        std::size_t end;  // of the component, in the path
    };
    static std::vector<Part> ContainerParts(std::string_view path);

    // The outermost's id, empty for none.
    static std::string_view ContainerId(std::string_view path);

    // The groups in the text of /proc/<pid>/cgroup (cgroups(7)), without owners.
    static std::vector<Cgroup> Groups(std::string_view text);

    // The same for the text of /proc/<pid>/cgroup (cgroups(7)): the first of its hierarchies that names a container.
    static std::string ContainerIdOfFile(std::string_view text);
};

}  // namespace SDK
