// SPDX-License-Identifier: Apache-2.0
// What a watch message asks for: a path and the events to be told about. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Engine {

// fanotify event bits (FAN_*), apart for what happens to a directory itself (the event then carries FAN_ONDIR).
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
    std::string path;  // absolute, as given
    EventMasks masks;
    std::string error;  // why the entry is refused; empty: it is not
};

// `text`: an absolute path, or one followed by "*/*" and one to four of the letters r, w, x and a; repeats count once.
// The letters choose the events and `masks` is then not looked at:
//   r  FAN_OPEN, FAN_ACCESS of files. Not the listing of directories, which every walk through a tree does.
//   w  FAN_MODIFY, FAN_CLOSE_WRITE, and what changes a directory without writing a file: FAN_CREATE, FAN_DELETE,
//      FAN_MOVED_FROM, FAN_MOVED_TO, of files and directories. A file that is made elsewhere on the filesystem and
//      renamed or linked into a watched directory is never written there, and that is how a job reaches cron.
//   x  FAN_OPEN_EXEC.
//   a  FAN_ATTRIB, of files and directories.
// Without letters the masks hold as they are, combined, for directories only if FAN_ONDIR is among them.
// Refused: a path that is not absolute or holds a zero byte, wrong letters, no event at all, a permission event
// (nothing on the host may ever wait for the agent), and bits that are not file events.
WatchEntry ParseWatchEntry(const std::string& text, const std::vector<unsigned int>& masks);

// Whether `path` is `top` or lies below it. Both absolute, without a slash at the end (except "/" itself).
bool LiesWithin(std::string_view path, std::string_view top);

// `directory`, a slash if it does not end in one, and `name`; the directory itself when there is no name.
std::string JoinPath(std::string_view directory, std::string_view name);

}  // namespace Engine
