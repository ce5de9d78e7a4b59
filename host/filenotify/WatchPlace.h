// SPDX-License-Identifier: Apache-2.0
// Where a watched path lies at this moment. Asks the kernel; keeps nothing open, so that no look at a path ever keeps
// its filesystem from being unmounted.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

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
    bool operator==(const WatchPlace& other) const = default;
};

// `follow`: whether a symbolic link at the end of the path is followed. An empty directory: not even "/" could be
// looked at.
WatchPlace FindPlace(const std::string& path, bool follow);

}  // namespace Engine
