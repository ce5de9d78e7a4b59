// SPDX-License-Identifier: Apache-2.0
// The mounts of the agent's mount namespace, from the text of /proc/self/mountinfo (proc(5)).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Engine {

struct MountInfo {
    std::string mountPoint;        // octal escapes undone
    std::string fileSystem;        // its type, for example "ext4"
    unsigned int majorDevice = 0;  // 0: not on a block device
};

// Lines that do not have the file's form are left out.
std::vector<MountInfo> ParseMountInfo(std::string_view text);

// Mount points strictly below `top` of filesystems that hold the host's data: those on block devices, and btrfs and
// zfs, whose device numbers are their own. Left out are the kernel's pseudo filesystems, overlays (the root of every
// container is one, and its own files are no business of a watch on the host's) and tmpfs (a container's /dev/shm and
// secrets); a watch whose very path lies on one of these works all the same.
std::vector<std::string> DataMountsBelow(const std::vector<MountInfo>& mounts, std::string_view top);

}  // namespace Engine
