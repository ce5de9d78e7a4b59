// SPDX-License-Identifier: Apache-2.0
// The files and directories of one watch on one filesystem, by their handles, and the marks on them.
//
// The tree is walked once, and then kept up by the events of entries that are made in it. An entry that goes stays
// listed until an access depends on it: only then the tree is walked again, which ends lists of what has left it.
// A directory that was at the watched path belongs to the watch while it exists, wherever it is moved; of those that
// were there one after another the last `maxFollowed`. A directory that is made at the path, or comes there, is known
// by its event.
//
// A small tree is marked: each directory and file of it has an inode mark that tells what is done to it, by whatever
// name and mount. Then the filesystem's mark need tell no more than what comes and goes, by which what is new is known;
// that is marked when its event has been read. What was done before is not told: in a new directory, or to a file that
// came by another name of it. For each such chance `notify.late` counts one: an entry came or went in a directory
// without its mark, was in a directory when that was moved here, or got another name before its mark. After a few of
// them the marks are given up for a while, and the filesystem's mark has to tell everything.
//
// Thread: that of filenotify_task; no lock inside.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/filenotify/FanotifyEvents.h"
#include "host/filenotify/InodeMarks.h"
#include "host/filenotify/KernelHandle.h"
#include "host/filenotify/WatchPlace.h"
#include "host/sdk/Counters.h"

namespace Engine {

class WatchedTree {
public:
    static constexpr std::size_t maxFollowed = 4;

    // Where a watch is now; `isMountBelow`: this is a filesystem mounted below it.
    struct Place {
        int watch = 0;
        bool isMountBelow = false;
        WatchPlace place;
        std::uint64_t events = 0;  // that a mark may be there for; 0: the tree is not to be marked
    };

    enum class Relation : std::uint8_t { None, Object, Directory };

    // The marks outlive this.
    explicit WatchedTree(InodeMarks& marks);
    WatchedTree(const WatchedTree&) = delete;
    WatchedTree& operator=(const WatchedTree&) = delete;
    ~WatchedTree() { ReleaseMarks(); }

    // The tree is there now, and may list so many handles.
    void MoveTo(const Place& wanted, std::size_t room);

    // Walks the tree if something may not be listed. Walks of all `trees` take a twentieth of the thread's time at
    // most, but for the first of each.
    void WalkIfIncomplete(std::size_t trees);

    // An event of any process: lists and marks what was made in the tree. Allocates only for that.
    void Follow(const FanotifyEvent& event, std::uint64_t parent);

    // After the events of a buffer: marks the files that came, and forgets those that are gone.
    void Settle();

    // Events were lost: what was made meanwhile is listed with the next walk.
    void EventsLost();

    // What the event is about by its directory's or its object's handle. Walks the tree first if something listed may
    // have left.
    Relation RelationOf(const FanotifyEvent& event, std::size_t trees);

    // Whether whatever is done to the tree at that place comes to marks of its own.
    bool IsMarkedAt(const WatchPlace& where) const { return isMarked && place == where; }
    bool IsMarked() const { return isMarked; }

    // The marks are not there any more.
    void MarksLost();

private:
    using Clock = std::chrono::steady_clock;

    static constexpr int restPerWalk = 20;  // times the time of the thread that the walk took
    static std::chrono::nanoseconds TimeOfThread();

    void FindNames();
    void Top(const KernelHandle& top);
    void FollowName(const FanotifyEvent& event, std::uint64_t parent);
    void FollowEntry(const FanotifyEvent& event, std::uint64_t parent);
    void FollowFile(const FanotifyEvent& event);
    void Enter(const KernelHandle& directory, bool wasMoved);
    void Walk(std::size_t trees);
    bool WalkAll(int anchor);
    bool WalkBelow(int anchor, std::vector<KernelHandle> pending, bool isLate);
    void WalkDirectory(SDK::FileDescriptor directory, std::vector<KernelHandle>& pending, bool isLate);
    bool List(const FileHandle& handle);
    void Mark(const KernelHandle& handle, int descriptor, std::uint64_t markEvents, bool isLate);
    bool MarkAgain(const KernelHandle& file);
    bool MarkFile(const KernelHandle& file, int anchor, bool isLate);

    // The filesystem's mark does not tell everything, or events that are read now may be from before it did.
    bool MayBeLate() const { return isMarked || (rest.count() != 0 && gaveUpBefore == marks.TimesEmpty()); }
    void CountLate(std::size_t entries);
    void GiveUpMarks();
    void ReleaseMarks();
    SDK::FileDescriptor Anchor() const;
    Relation Look(const FanotifyEvent& event) const;

    InodeMarks& marks;
    WatchPlace place;
    std::uint64_t events = 0;
    std::size_t room = 0;
    // The names in the path, each with the key of its directory, as far as that is there and on the same filesystem.
    // The first one is the path's own.
    std::vector<std::pair<std::uint64_t, std::string>> names;
    std::vector<KernelHandle> tops;  // directories that are or were at the path, the newest last
    std::unordered_set<std::uint64_t> handles;
    std::unordered_set<std::uint64_t> marked;  // of these, and the directory that holds a path without a directory
    std::unordered_map<std::uint64_t, KernelHandle> changed;  // files that came or were deleted since Settle
    bool isMarked = false;
    bool isIncomplete = true;  // something may not be listed
    bool isDoubtful = false;   // something listed may have left
    bool isFull = false;
    Clock::time_point nextWalk;
    std::size_t lateSinceWalk = 0;
    Clock::time_point gaveUpAt;
    std::uint64_t gaveUpBefore = 0;  // InodeMarks::TimesEmpty
    std::chrono::seconds rest{0};    // after that
    SDK::Counters::Counter& late;
};

}  // namespace Engine
