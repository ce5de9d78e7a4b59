// SPDX-License-Identifier: Apache-2.0
// Where a watched path lies at this moment. Asks the kernel; keeps nothing open, so that no look at a path ever keeps
// its filesystem from being unmounted. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Engine {

struct WatchPlace {
    std::string path;        // absolute, symbolic links of every existing part resolved
    std::string directory;   // what is marked: the path itself, or its nearest existing ancestor, if it is no directory
    std::uint64_t fsid = 0;  // of the directory's filesystem, statfs(2) f_fsid; 0: none
    std::uint64_t mount = 0;  // of the directory, statx(2) stx_mnt_id

    // What is at the path itself; all 0: nothing.
    std::uint64_t device = 0;
    std::uint64_t inode = 0;

    bool Exists() const { return inode != 0; }
    bool IsDirectory() const { return path == directory; }
    bool operator==(const WatchPlace& other) const = default;
};

// An empty directory in the answer: not even "/" could be looked at.
WatchPlace FindPlace(const std::string& path);

// statfs(2) f_fsid of what the path leads to; 0: none.
std::uint64_t FileSystemId(const std::string& path);

// The mount points of filesystems that hold data of the host, from the text of /proc/self/mountinfo
// (proc_pid_mountinfo(5)): those on block devices, and btrfs and zfs, whose device numbers are their own. Excluded are
// the kernel's pseudo filesystems, overlays (the root of every container is one, and its own files are no business of a
// watch on the host's files) and tmpfs (a container's /dev/shm and secrets). Pure.
std::vector<std::string> DataMounts(std::string_view mountInfo);

}  // namespace Engine
