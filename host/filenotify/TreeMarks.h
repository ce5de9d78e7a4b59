// SPDX-License-Identifier: Apache-2.0
// The way for filesystems that take no filesystem mark, such as overlays without nfs_export, procfs or the subvolumes
// of btrfs: an inode mark on every directory of the watched trees, and the handle of each remembered, because such
// filesystems often cannot open a handle either (fanotify_mark(2), ENODEV, EXDEV, EOPNOTSUPP).
//
// Limits: at most `maxDirectories` directories, trees end at mount points, and a directory that is made or moved is
// covered from the next Set on (within about a second): what happens in it before is not seen.
// Thread: that of filenotify_task; no lock inside.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "host/filenotify/FanotifyEvents.h"
#include "host/filenotify/FanotifyGroup.h"
#include "host/sdk/Directory.h"

namespace Engine {

class TreeMarks {
public:
    static constexpr std::size_t maxDirectories = 16384;

    struct Tree {
        std::string top;
        bool recursive = true;  // false: the directory alone
        std::uint64_t events = 0;
        bool operator==(const Tree& other) const = default;
    };

    // The group outlives this.
    explicit TreeMarks(const FanotifyGroup& group) : group(group) {}

    // Makes `next` the marked trees. Walks them only when they differ from the trees before, or after DirectoryChanged.
    // Returns the last walk's first error; what could be marked is.
    std::error_code Set(const std::vector<Tree>& next);

    // Whether Set begins with the removal of all inode marks of the group.
    bool WillStartOver(const std::vector<Tree>& next) const { return next != trees && !paths.empty(); }

    // The group is another one, without marks: the next Set makes them all.
    void StartOver()
    {
        trees.clear();
        paths.clear();
    }

    // A directory was made, moved or deleted in `parent`: if that is one of these trees', the next Set walks again.
    void DirectoryChanged(const FileHandle& parent) { outdated = outdated || PathOf(parent) != nullptr; }

    // The path at the last walk; null: not a directory of these trees.
    const std::string* PathOf(const FileHandle& directory) const;

private:
    using Key = std::pair<std::int32_t, std::string>;  // the handle's type and bytes

    std::error_code Walk(const Tree& tree);
    bool MarkBelow(const Tree& tree, const std::string& path, SDK::Directory& directory,
                   std::vector<std::string>& pending);
    std::error_code MarkOne(const std::string& directory, std::uint64_t events);

    const FanotifyGroup& group;
    std::vector<Tree> trees;
    std::map<Key, std::string> paths;
    std::error_code failure;
    bool outdated = false;
};

}  // namespace Engine
