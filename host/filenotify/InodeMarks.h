// SPDX-License-Identifier: Apache-2.0
// Inode marks on directories and files, by handle, each with as many users as trees that want it.
//
// A mark on a directory tells what is done to its entries by whatever mount, one on a file what is done to it by
// whatever link. A mark stays with its inode until it is removed or the inode goes, and keeps the inode in memory until
// then: some 1.2 KB for each on ext4.
// Thread: that of filenotify_task; no lock inside.
#pragma once

#include <sys/fanotify.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <system_error>
#include <unordered_map>

#include "host/filenotify/FanotifyGroup.h"
#include "host/filenotify/KernelHandle.h"
#include "host/filenotify/WatchPlace.h"

namespace Engine {

class InodeMarks {
public:
    // Of all trees together. While as many are set no event is read, and the kernel's queue has to hold what comes.
    static constexpr std::size_t maxMarks = 4096;

    // What the kernel tells to the mark on a directory of what is done to its entries, beside their coming and going
    // (FS_EVENTS_POSS_ON_CHILD in include/linux/fsnotify_backend.h).
    static constexpr std::uint64_t entryEvents =
        FAN_ACCESS | FAN_MODIFY | FAN_ATTRIB | FAN_CLOSE_WRITE | FAN_CLOSE_NOWRITE | FAN_OPEN | FAN_OPEN_EXEC;

    // The group outlives this.
    explicit InodeMarks(const FanotifyGroup& group) : group(group) {}

    // One more user of the mark on what the descriptor is open for and the handle stands for. `place`: of its tree.
    // `isLate`: accesses may have been possible before. ENOSPC: as many marks are set as may be.
    std::error_code Add(const KernelHandle& handle, int descriptor, const WatchPlace& place, std::uint64_t events,
                        bool isLate);

    // The same for a mark that is there with these events. False: it is not.
    bool Use(std::uint64_t key, std::uint64_t events);

    // One user less. The kernel's mark stays until RemoveReleased, and is there again for another Add.
    void Release(std::uint64_t key);

    // The kernel has dropped the mark: its directory was deleted, or the filesystem unmounted.
    void Forget(std::uint64_t key) { marks.erase(key); }

    // The kernel may have dropped the mark: the next Add makes sure.
    void Doubt(std::uint64_t key);

    // Whether an event that is read now may be older than the mark, which came late.
    bool IsLate(std::uint64_t key) const;

    // Everything that was queued has been read.
    void QueueIsEmpty() { ++timesEmpty; }
    std::uint64_t TimesEmpty() const { return timesEmpty; }

    // Whether the kernel has a mark on that directory.
    bool IsThere(const std::string& directory) const;

    // `alone`: the group has no other inode marks.
    void RemoveReleased(bool alone);

    // The group has no inode marks any more.
    void StartOver() { marks.clear(); }

private:
    struct Mark {
        KernelHandle handle;
        std::uint64_t fsid = 0;
        std::uint64_t events = 0;
        std::size_t users = 0;
        bool isLate = false;
        bool isDoubtful = false;
        std::uint64_t setAt = 0;  // timesEmpty
    };

    bool Remove(const Mark& mark) const;

    const FanotifyGroup& group;
    std::unordered_map<std::uint64_t, Mark> marks;  // by the handle's key
    std::map<std::uint64_t, std::string> anchors;   // by fsid, a directory of it
    std::uint64_t timesEmpty = 0;
    bool anyReleased = false;
};

}  // namespace Engine
