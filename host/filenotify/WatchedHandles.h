// SPDX-License-Identifier: Apache-2.0
// Which files and directories belong to the watches with `changes`, by their handles: so an access is told that comes
// by another path, through a hard link or in a directory that was moved away from its watched path.
//
// Each watched tree is walked once, and then kept up by the events of entries that are made in it. An entry that goes
// stays listed until an access depends on it: only then the tree is walked again, which ends lists of what has left it.
// A directory that was at the watched path belongs to the watch while it exists, wherever it is moved; of those that
// were there one after another the last `maxFollowed`.
// A directory that is made at the path, or comes there, is known by its event.
// Bounded: `maxHandles` for all trees, in equal shares; walks take a twentieth of the thread's time at most, but for
// the first of a tree. Only for filesystems that open handles, which all do that take a filesystem mark.
// Limits: before Linux 5.17 events do not tell what was made or moved, so what is new in a tree is listed within about
// a second. Filesystems mounted below are trees of their own.
// Thread: that of filenotify_task; no lock inside.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/filenotify/FanotifyEvents.h"
#include "host/filenotify/KernelHandle.h"
#include "host/filenotify/WatchPlace.h"

namespace Engine {

class WatchedHandles {
public:
    // Some 40 bytes and 6 us each, in which no event is read: the kernel's queue has to hold what comes meanwhile.
    static constexpr std::size_t maxHandles = 65536;
    static constexpr std::size_t maxFollowed = 4;

    // A watch and where it is now; several of one watch if filesystems are mounted below it.
    struct Place {
        int watch = 0;
        bool isMountBelow = false;
        WatchPlace place;
    };

    // Makes these the trees, and walks those that are new, changed or not completely listed.
    void Set(const std::vector<Place>& places);

    // An event of any process: lists what was made in a tree. Allocates only for that; costs nothing without trees.
    void Follow(const FanotifyEvent& event);

    // Events were lost: what was made meanwhile is listed with the next Set.
    void EventsLost();

    // The watches that the event is about by its directory's or its object's handle, and in `mask` what has happened to
    // them: that a hard link elsewhere goes or moves is none of their business. Empty: none.
    std::vector<int> WatchesOf(const FanotifyEvent& event, std::uint64_t& mask);

private:
    using Clock = std::chrono::steady_clock;

    struct Tree {
        WatchPlace place;
        std::optional<std::uint64_t> parent;  // key of the directory that holds the path, if it is there
        std::string name;                     // in it
        std::vector<KernelHandle> tops;       // directories that are or were at the path, the newest last
        std::unordered_set<std::uint64_t> handles;
        bool isIncomplete = true;  // something may not be listed
        bool isDoubtful = false;   // something listed may have left
        bool isFull = false;
        Clock::time_point nextWalk;
    };
    enum class Relation : std::uint8_t { None, Object, Directory };

    static std::uint64_t KeyOf(const FileHandle& handle);
    static Relation RelationOf(const Tree& tree, const FanotifyEvent& event);
    static void Move(Tree& tree, const Place& wanted);
    static void Top(Tree& tree, const KernelHandle& top);
    void Walk(Tree& tree) const;
    bool WalkFrom(Tree& tree, int anchor) const;
    void WalkDirectory(Tree& tree, SDK::FileDescriptor directory, std::vector<KernelHandle>& pending) const;
    bool List(Tree& tree, const FileHandle& handle) const;
    std::size_t Share() const { return maxHandles / trees.size(); }

    std::map<std::pair<int, std::string>, Tree> trees;  // by watch, and mount point below it or nothing
};

}  // namespace Engine
