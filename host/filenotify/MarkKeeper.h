// SPDX-License-Identifier: Apache-2.0
// Keeps the kernel's marks in line with the watches, and knows which mounts show what is watched.
//
// A filesystem mark sees an access through whatever mount it comes: a bind mount in a container, or the disk mounted
// anew by one. It is shared by all watches on that filesystem: its events are those that any of them wants. Where the
// filesystem takes no such mark, TreeMarks does.
// Thread: the task's only.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "host/filenotify/DirectoryLookup.h"
#include "host/filenotify/FanotifyGroup.h"
#include "host/filenotify/MountResolver.h"
#include "host/filenotify/MountTable.h"
#include "host/filenotify/TreeMarks.h"
#include "host/filenotify/WatchPlace.h"
#include "host/filenotify/WatchTable.h"

namespace Engine {

class MarkKeeper : public DirectoryLookup {
public:
    // Mounts that are looked through for a path at most; those of a watch itself come before those below it.
    static constexpr std::size_t maxMounts = 64;

    // The group outlives this.
    explicit MarkKeeper(const FanotifyGroup& group) : group(group), trees(group) {}

    // Looks where every watched path is now, tells the watch, logs paths that came, went or were replaced, and sets the
    // marks. Marks that are in place are set again, which costs one call each: a filesystem that was unmounted and
    // mounted again between two calls has lost its mark and looks the same.
    void Update(WatchTable& watches);

    // Why the watch is not covered, as of the last Update.
    std::error_code ErrorOf(int watch) const;
    bool Exists(int watch) const;

    Answer PathsOf(const DirectoryHandle& directory, const std::function<bool(const std::string&)>& take) override;
    void DirectoryChanged(const DirectoryHandle& parent) override { trees.DirectoryChanged(parent); }

    // As MountResolver::Close.
    void CloseMounts() { resolver.Close(); }

private:
    struct FileSystemMark {
        std::string directory;  // through which it was set last
        std::uint64_t events = 0;
    };
    struct Mount {
        std::uint64_t fsid = 0;
        std::uint64_t id = 0;
        std::string directory;
    };
    struct State {
        WatchPlace place;
        std::error_code error;
    };
    struct Plan {
        std::map<std::uint64_t, FileSystemMark> marks;  // by fsid
        std::vector<Mount> mounts;
        std::vector<TreeMarks::Tree> trees;
        std::map<int, State> states;  // by watch number
        bool mountsLeftOut = false;
    };

    void Locate(Watch& watch, Plan& plan);
    std::error_code Cover(const WatchPlace& place, std::uint64_t events, Plan& plan);
    void CoverBelow(const Watch& watch, const std::vector<MountInfo>& hostMounts, Plan& plan);
    void SetTrees(Plan& plan);
    void DropUnwanted(const Plan& plan);
    void Report(const WatchTable& watches, const Plan& plan) const;

    const FanotifyGroup& group;
    TreeMarks trees;
    MountResolver resolver;
    Plan current;
};

}  // namespace Engine
