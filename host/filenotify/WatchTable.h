// SPDX-License-Identifier: Apache-2.0
// What is watched: the path and the events of each watch, and the task that is to be notified.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Task.h"

namespace Engine {

// fanotify event bits (FAN_*). What happens to a directory itself is kept apart: such an event carries FAN_ONDIR.
struct EventMasks {
    std::uint64_t files = 0;
    std::uint64_t directories = 0;

    // The bits of the event `mask` that are wanted; 0: none. FAN_ONDIR is kept beside them.
    std::uint64_t Wanted(std::uint64_t mask) const;

    // What the kernel has to be asked for, FAN_ONDIR included where directories matter.
    std::uint64_t Union() const;

    EventMasks& operator|=(const EventMasks& other);
    bool operator==(const EventMasks& other) const = default;
};

struct WatchEntry {
    std::string path;  // absolute, as given, without a slash at the end
    EventMasks masks;
    std::string error;     // why the entry is refused; empty: it is not
    bool changes = false;  // _FileNotifyOpt
};

// `text`: an absolute path, or one followed by "*/*" and permission letters (PathEntry.h). The letters choose the
// events, and `masks` is then not looked at:
//   r  FAN_OPEN, FAN_ACCESS of files. Not the listing of directories, which every walk through a tree does.
//   w  FAN_MODIFY, FAN_CLOSE_WRITE, and what changes a directory without writing a file: FAN_CREATE, FAN_DELETE,
//      FAN_MOVED_FROM, FAN_MOVED_TO, of files and directories. A file that is made elsewhere on the filesystem and
//      renamed or linked into a watched directory is never written there, and that is how a job reaches cron.
//   x  FAN_OPEN_EXEC.
//   a  FAN_ATTRIB, of files and directories.
// Without letters the masks hold as they are, combined, for directories only if FAN_ONDIR is among them.
// With `changes` (_FileNotifyOpt) whatever asks for FAN_MODIFY or FAN_CLOSE_WRITE has all of w, and FAN_ATTRIB.
// Refused: a path that is not absolute or holds a zero byte, wrong letters, no event at all, a permission event
// (nothing on the host may ever wait for the agent), and bits that are not file events. Pure.
WatchEntry ParseWatchEntry(const std::string& text, const std::vector<unsigned int>& masks, bool changes = false);

// Whether `path` is `top` or lies below it. Both absolute, without a slash at the end (except "/" itself).
bool LiesWithin(std::string_view path, std::string_view top);

// The path of the entry `name` of that directory; of the directory itself when there is no name.
std::string JoinPath(std::string_view directory, std::string_view name);

struct Watch {
    int number;                         // from 1; unique in the agent's life
    const Framework::Task* subscriber;  // part of the key, never called: it may be gone
    std::string subscriberName;         // where notifications are sent
    std::string text;                   // the path as it was given, letters included: part of the key
    WatchEntry entry;
    std::string path;        // as the host names it now, symbolic links resolved; kept up by Marks
    unsigned int count = 1;  // Adds that were not taken back; 0: suspended
};

// One notification to send: the first matching watch of a subscriber, and the wanted bits of all its watches.
struct WatchMatch {
    const Watch* watch;
    std::uint64_t mask;
};

// Watches are counted per (subscriber, text): asking twice gives one watch, which goes with the second withdrawal and
// has the events of both. Thread: that of filenotify_task; no lock inside.
class WatchTable {
public:
    // Returns the number of the new or counted watch. `subscriber` is not null.
    int Add(const Framework::Task* subscriber, const std::string& text, const WatchEntry& entry);

    // Takes back one Add. False: there is no such watch.
    bool Remove(const Framework::Task* subscriber, const std::string& text);

    // As Remove, but the last Add stays in force, as it is, until the watch is added anew.
    bool Suspend(const Framework::Task* subscriber, const std::string& text);

    // Ends what is suspended, of the subscribers for which `isOver`. Returns the texts of those watches.
    std::vector<std::string> EndSuspended(const std::function<bool(const Watch&)>& isOver);

    // Fills `matches` with one for each subscriber to notify of the access, in the order of their first watch.
    // `mask`: the event's bits. A watch with `changes` is also about the move of a directory above its path, and about
    // the symbolic link that its path is.
    void Match(std::string_view path, std::uint64_t mask, std::vector<WatchMatch>& matches) const;

    // The same for the watches of these numbers, wherever their paths lead.
    void Match(const std::vector<int>& numbers, std::uint64_t mask, std::vector<WatchMatch>& matches) const;

    bool AnyChanges() const;

    std::list<Watch>& Watches() { return watches; }
    const std::list<Watch>& Watches() const { return watches; }

private:
    std::list<Watch>::iterator Find(const Framework::Task* subscriber, const std::string& text);

    std::list<Watch> watches;
    int lastNumber = 0;
};

}  // namespace Engine
