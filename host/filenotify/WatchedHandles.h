// SPDX-License-Identifier: Apache-2.0
// Which files and directories belong to the watches with `changes`, by their handles: so an access is told that comes
// by another path, through a hard link or in a directory that was moved away from its watched path.
//
// A tree for each watch, and one for each filesystem mounted below it; see WatchedTree. Bounded: `maxHandles` for all
// trees, in equal shares. Only for filesystems that open handles, which all do that take a filesystem mark.
// Limits: before Linux 5.17 events do not tell what was made or moved, so what is new in a tree is listed within about
// a second.
// Thread: that of filenotify_task; no lock inside.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/filenotify/FanotifyEvents.h"
#include "host/filenotify/FanotifyGroup.h"
#include "host/filenotify/InodeMarks.h"
#include "host/filenotify/WatchedTree.h"

namespace Engine {

class WatchedHandles {
public:
    // Some 40 bytes and 6 us each, in which no event is read: the kernel's queue has to hold what comes meanwhile.
    static constexpr std::size_t maxHandles = 65536;

    using Place = WatchedTree::Place;

    // The group outlives this.
    explicit WatchedHandles(const FanotifyGroup& group) : marks(group) {}

    // Makes these the trees, and walks those that are new, changed or not completely listed.
    void Set(const std::vector<Place>& places);

    // An event of any process. Costs nothing without trees.
    void Follow(const FanotifyEvent& event);

    // After the events of a buffer; see WatchedTree.
    void Settle();

    // Events were lost: what was made meanwhile is listed with the next Set.
    void EventsLost();

    // The watches that the event is about by its directory's or its object's handle, and in `mask` what has happened to
    // them: that a hard link elsewhere goes or moves is none of their business. Empty: none.
    std::vector<int> WatchesOf(const FanotifyEvent& event, std::uint64_t& mask);

    // Whether what is done to the tree comes to marks of its own; see WatchedTree.
    bool IsMarked(const Place& place) const;

    // Whether a tree has lost its marks since the last Set: its filesystem's mark has to tell everything at once.
    bool MarksGivenUp() const { return givenUp; }

    // Everything that was queued has been read.
    void QueueIsEmpty() { marks.QueueIsEmpty(); }

    // Ends marks that no tree has any more. `alone`: the group has no other inode marks.
    void RemoveUnwantedMarks(bool alone) { marks.RemoveReleased(alone); }

    // The group has no inode marks any more: the next Set makes them all.
    void StartOver();

private:
    using Key = std::pair<int, std::string>;  // the watch, and the mount point below it or nothing

    static Key KeyOfPlace(const Place& place)
    {
        return {place.watch, place.isMountBelow ? place.place.path : std::string{}};
    }

    InodeMarks marks;
    std::map<Key, WatchedTree> trees;
    bool givenUp = false;
};

}  // namespace Engine
