// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchEntry.h"

#include <sys/fanotify.h>

#include <algorithm>
#include <array>
#include <optional>

namespace Engine {

namespace {

constexpr std::uint64_t directoryChanges = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO;
constexpr std::uint64_t fileEvents = FAN_ACCESS | FAN_MODIFY | FAN_ATTRIB | FAN_CLOSE_WRITE | FAN_CLOSE_NOWRITE |
                                     FAN_OPEN | FAN_OPEN_EXEC | FAN_DELETE_SELF | FAN_MOVE_SELF | directoryChanges;

struct Letter {
    char letter;
    EventMasks masks;
};
constexpr std::array<Letter, 4> letters{{
    {'r', {FAN_OPEN | FAN_ACCESS, 0}},
    {'w', {FAN_MODIFY | FAN_CLOSE_WRITE | directoryChanges, directoryChanges}},
    {'x', {FAN_OPEN_EXEC, 0}},
    {'a', {FAN_ATTRIB, FAN_ATTRIB}},
}};
constexpr std::string_view separator = "*/*";

// Empty when one of them is no letter, or their number is wrong.
std::optional<EventMasks> MasksOfLetters(std::string_view text)
{
    if (text.empty() || text.size() > letters.size()) {
        return std::nullopt;
    }
    EventMasks masks;
    for (const char wanted : text) {
        const auto* row =
            std::find_if(letters.begin(), letters.end(), [&](const Letter& l) { return l.letter == wanted; });
        if (row == letters.end()) {
            return std::nullopt;
        }
        masks |= row->masks;
    }
    return masks;
}

EventMasks MasksOfMessage(const std::vector<unsigned int>& masks, std::string& error)
{
    std::uint64_t combined = 0;
    for (const unsigned int mask : masks) {
        combined |= mask;
    }
    combined &= ~std::uint64_t{FAN_EVENT_ON_CHILD};  // a watch covers what lies below it anyway
    if ((combined & ~(fileEvents | FAN_ONDIR)) != 0) {
        error = (combined & FAN_ALL_PERM_EVENTS) != 0 ? "permission events are never asked for" : "no such file event";
        return {};
    }
    const std::uint64_t events = combined & fileEvents;
    return {events, (combined & FAN_ONDIR) != 0 ? events : 0};
}

std::string WithoutSlashAtEnd(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

}  // namespace

std::uint64_t EventMasks::Wanted(std::uint64_t mask) const
{
    const bool onDirectory = (mask & FAN_ONDIR) != 0;
    const std::uint64_t wanted = mask & (onDirectory ? directories : files);
    return wanted != 0 && onDirectory ? wanted | FAN_ONDIR : wanted;
}

std::uint64_t EventMasks::Union() const
{
    return files | directories | (directories != 0 ? std::uint64_t{FAN_ONDIR} : 0);
}

EventMasks& EventMasks::operator|=(const EventMasks& other)
{
    files |= other.files;
    directories |= other.directories;
    return *this;
}

WatchEntry ParseWatchEntry(const std::string& text, const std::vector<unsigned int>& masks)
{
    WatchEntry entry;
    const std::size_t end = text.find(separator);
    entry.path = WithoutSlashAtEnd(text.substr(0, end));
    if (end == std::string::npos) {
        entry.masks = MasksOfMessage(masks, entry.error);
    } else if (const auto chosen = MasksOfLetters(std::string_view{text}.substr(end + separator.size()))) {
        entry.masks = *chosen;
    } else {
        entry.error = "one to four of the letters r, w, x and a must follow";
    }
    if (entry.error.empty() && entry.masks.Union() == 0) {
        entry.error = "no event is asked for";
    }
    if (entry.path.empty() || entry.path.front() != '/' || entry.path.find('\0') != std::string::npos) {
        entry.error = "not an absolute path";
    }
    return entry;
}

bool LiesWithin(std::string_view path, std::string_view top)
{
    if (!path.starts_with(top)) {
        return false;
    }
    return path.size() == top.size() || top == "/" || path[top.size()] == '/';
}

std::string JoinPath(std::string_view directory, std::string_view name)
{
    std::string path{directory};
    if (!name.empty()) {
        if (!path.ends_with('/')) {
            path += '/';
        }
        path += name;
    }
    return path;
}

}  // namespace Engine
