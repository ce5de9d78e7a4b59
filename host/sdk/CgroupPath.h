// SPDX-License-Identifier: Apache-2.0
// Which container a control group belongs to, by its path: the forms that the common engines give their groups.
#pragma once

#include <string>
#include <string_view>

namespace SDK {

class CgroupPath {
public:
    // The container id in one cgroup path, as /proc/<pid>/cgroup or the cgroup_attach_task event gives it; empty when
    // the path belongs to no container. The first (outermost) component that has an engine's form decides: groups below
    // it are made by what runs in the container, which must not be able to pass for another.
    static std::string_view ContainerId(std::string_view path);

    // The same for the text of /proc/<pid>/cgroup (cgroups(7)): the first of its hierarchies that names a container.
    static std::string_view ContainerIdOfFile(std::string_view text);
};

}  // namespace SDK
