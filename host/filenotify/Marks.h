// SPDX-License-Identifier: Apache-2.0
// Keeps the kernel's marks in line with the watches, and knows which mounts show what is watched.
//
// A filesystem mark sees an access through whatever mount it comes: a bind mount in a container, or the disk mounted
// anew by one. It is shared by all watches on that filesystem: its events are those that any of them wants. But each of
// them makes every process of the host pay that does the like anywhere on the filesystem: where WatchedHandles has
// marked the files and directories of a watch themselves, the filesystem's mark tells only what comes and goes.
// Where the filesystem takes no such mark, TreeMarks does.
// Thread: that of filenotify_task; no lock inside.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "host/filenotify/FanotifyGroup.h"
#include "host/filenotify/MountResolver.h"
#include "host/filenotify/TreeMarks.h"
#include "host/filenotify/WatchPlace.h"
#include "host/filenotify/WatchTable.h"
#include "host/filenotify/WatchedHandles.h"

namespace Engine {

class Marks {
public:
    // Mounts that are looked through for a path at most; those of a watch itself come before those below it.
    static constexpr std::size_t maxMounts = 64;

    enum class Answer : std::uint8_t {
        Done,     // every path was offered; a filesystem that is not watched gives none
        Gone,     // the directory does not exist any more, or its path is longer than the kernel tells
        Failing,  // descriptors or memory ran out: the access is lost
    };

    // The group outlives this.
    explicit Marks(const FanotifyGroup& group) : group(group), trees(group), handles(group) {}

    // Looks where every watched path is now, tells the watch, makes the kernel's marks those that are wanted, and logs
    // paths that came, went or were replaced. Marks that are in place are set again, which costs one call each: a
    // filesystem that was unmounted and mounted again between two calls has lost its mark and looks the same.
    void Update(WatchTable& watches);

    // Why the watch is not covered, as of the last Update.
    std::error_code ErrorOf(int watch) const;

    // Offers the directory's paths as the host names them, one for each watched mount that shows it, until `take`
    // returns true.
    Answer PathsOf(const FileHandle& directory, const std::function<bool(const std::string&)>& take);

    // A directory was made, moved or deleted in `parent`. Cheap: called for those that any process on the host changes.
    void DirectoryChanged(const FileHandle& parent) { trees.DirectoryChanged(parent); }

    // The group is another one now, without marks. Update is to be called next.
    void StartOver();

    // What belongs to watches with `changes`, as of the last Update and the events since.
    WatchedHandles& Handles() { return handles; }

    // Whether Update is to be called now, and not only with the next look.
    bool NeedUpdate() const { return handles.MarksGivenUp(); }

    // As MountResolver::Forget.
    void ForgetPaths() { resolver.Forget(); }

    // As MountResolver::Close.
    void CloseMounts() { resolver.Close(); }

private:
    // What a watch covers: its own place, or that of a filesystem mounted below it.
    struct Target {
        int watch = 0;
        WatchPlace place;
        std::uint64_t events = 0;
        bool changes = false;  // as the watch's
        bool isMountBelow = false;
        std::error_code error{};  // the kernel's answer to the mark
    };
    struct FileSystemMark {
        std::string directory;  // through which it was set last
        std::uint64_t events = 0;
    };
    struct Mount {
        std::uint64_t fsid = 0;
        std::uint64_t id = 0;
        std::string directory;
    };
    struct Wanted {
        std::map<std::uint64_t, FileSystemMark> marks;  // by fsid
        std::vector<TreeMarks::Tree> trees;
        std::vector<Mount> mounts;
        bool mountsExcluded = false;  // for want of room
    };

    static std::vector<Target> FindTargets(WatchTable& watches);
    static std::vector<TreeMarks::Tree> WantedTrees(const std::vector<Target>& targets);
    Wanted WantedMarks(const std::vector<Target>& targets) const;
    std::vector<WatchedHandles::Place> WantedHandles(const std::vector<Target>& targets) const;
    std::uint64_t FileSystemEvents(const Target& target) const;
    void MarkFileSystems(std::vector<Target>& targets);
    void RemoveUnwanted(const Wanted& wanted) const;
    void Report(const WatchTable& watches, const std::map<int, Target>& found, const Wanted& wanted) const;

    const FanotifyGroup& group;
    TreeMarks trees;
    WatchedHandles handles;
    MountResolver resolver;
    Wanted current;                 // what is set
    std::map<int, Target> watched;  // by watch number, its own place
};

}  // namespace Engine
