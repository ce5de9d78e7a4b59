// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchTable.h"

#include <sys/fanotify.h>

#include <algorithm>
#include <array>

#include "PathEntry.h"

namespace Engine {

namespace {

constexpr std::uint64_t directoryChanges = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO;
constexpr std::uint64_t fileEvents = FAN_ACCESS | FAN_MODIFY | FAN_ATTRIB | FAN_CLOSE_WRITE | FAN_CLOSE_NOWRITE |
                                     FAN_OPEN | FAN_OPEN_EXEC | FAN_DELETE_SELF | FAN_MOVE_SELF | directoryChanges;

struct Letter {
    char letter;
    EventMasks masks;
};
constexpr std::array<Letter, 4> letterRows{{
    {'r', {FAN_OPEN | FAN_ACCESS, 0}},
    {'w', {FAN_MODIFY | FAN_CLOSE_WRITE | directoryChanges, directoryChanges}},
    {'x', {FAN_OPEN_EXEC, 0}},
    {'a', {FAN_ATTRIB, FAN_ATTRIB}},
}};

EventMasks MasksOfLetters(std::string_view letters)
{
    EventMasks masks;
    for (const Letter& row : letterRows) {
        if (letters.find(row.letter) != std::string_view::npos) {
            masks |= row.masks;
        }
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
    }
    const std::uint64_t events = combined & fileEvents;
    return {events, (combined & FAN_ONDIR) != 0 ? events : 0};
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

WatchEntry ParseWatchEntry(const std::string& text, const std::vector<unsigned int>& masks, bool changes)
{
    const SDK::PathEntry parsed = SDK::ParsePathEntry(text);
    WatchEntry entry{std::string{parsed.path}, {}, {}, changes};
    while (entry.path.size() > 1 && entry.path.back() == '/') {
        entry.path.pop_back();
    }
    entry.masks = parsed.letters.empty() ? MasksOfMessage(masks, entry.error) : MasksOfLetters(parsed.letters);
    if (changes && (entry.masks.files & (FAN_MODIFY | FAN_CLOSE_WRITE)) != 0) {
        entry.masks |= MasksOfLetters("wa");
    }
    if (entry.error.empty() && entry.masks.Union() == 0) {
        entry.error = "no event is asked for";
    }
    if (parsed.error != nullptr) {
        entry.error = parsed.error;
    }
    if (!entry.path.starts_with('/') || entry.path.find('\0') != std::string::npos) {
        entry.error = "not an absolute path";
    }
    return entry;
}

bool LiesWithin(std::string_view path, std::string_view top)
{
    return path.starts_with(top) && (path.size() == top.size() || top == "/" || path[top.size()] == '/');
}

std::string JoinPath(std::string_view directory, std::string_view name)
{
    std::string path{directory};
    if (!name.empty()) {
        path += directory.ends_with('/') ? "" : "/";
        path += name;
    }
    return path;
}

namespace {

bool IsAbout(const Watch& watch, std::string_view path, std::uint64_t mask)
{
    if (LiesWithin(path, watch.path)) {
        return true;
    }
    const bool isMove = (mask & (FAN_MOVED_FROM | FAN_MOVED_TO)) != 0;
    return watch.entry.changes && (path == watch.entry.path ||
                                   (isMove && (LiesWithin(watch.path, path) || LiesWithin(watch.entry.path, path))));
}

void AddMatch(const Watch& watch, std::uint64_t mask, std::vector<WatchMatch>& matches)
{
    const std::uint64_t wanted = watch.entry.masks.Wanted(mask);
    if (wanted == 0) {
        return;
    }
    const auto same = std::find_if(matches.begin(), matches.end(), [&](const WatchMatch& match) {
        return match.watch->subscriber == watch.subscriber;
    });
    if (same == matches.end()) {
        matches.push_back({&watch, wanted});
    } else {
        same->mask |= wanted;
    }
}

}  // namespace

std::list<Watch>::iterator WatchTable::Find(const Framework::Task* subscriber, const std::string& text)
{
    return std::find_if(watches.begin(), watches.end(),
                        [&](const Watch& watch) { return watch.subscriber == subscriber && watch.text == text; });
}

int WatchTable::Add(const Framework::Task* subscriber, const std::string& text, const WatchEntry& entry)
{
    const auto known = Find(subscriber, text);
    if (known != watches.end() && known->count == 0) {
        known->entry = entry;
        known->count = 1;
        return known->number;
    }
    if (known != watches.end()) {
        ++known->count;
        known->entry.masks |= entry.masks;
        known->entry.changes = known->entry.changes || entry.changes;
        return known->number;
    }
    watches.push_back({++lastNumber, subscriber, subscriber->name(), text, entry, entry.path});
    return lastNumber;
}

bool WatchTable::Remove(const Framework::Task* subscriber, const std::string& text)
{
    const auto known = Find(subscriber, text);
    if (known == watches.end()) {
        return false;
    }
    if (known->count < 2 || --known->count == 0) {
        watches.erase(known);
    }
    return true;
}

bool WatchTable::Suspend(const Framework::Task* subscriber, const std::string& text)
{
    const auto known = Find(subscriber, text);
    if (known == watches.end() || known->count == 0) {
        return false;
    }
    --known->count;
    return true;
}

std::vector<std::string> WatchTable::EndSuspended(const std::function<bool(const Watch&)>& isOver)
{
    std::vector<std::string> ended;
    std::erase_if(watches, [&](const Watch& watch) {
        const bool ends = watch.count == 0 && isOver(watch);
        if (ends) {
            ended.push_back(watch.text);
        }
        return ends;
    });
    return ended;
}

bool WatchTable::AnyChanges() const
{
    return std::any_of(watches.begin(), watches.end(), [](const Watch& watch) { return watch.entry.changes; });
}

void WatchTable::Match(std::string_view path, std::uint64_t mask, std::vector<WatchMatch>& matches) const
{
    matches.clear();
    for (const Watch& watch : watches) {
        if (IsAbout(watch, path, mask)) {
            AddMatch(watch, mask, matches);
        }
    }
}

void WatchTable::Match(const std::vector<int>& numbers, std::uint64_t mask, std::vector<WatchMatch>& matches) const
{
    matches.clear();
    for (const Watch& watch : watches) {
        if (std::find(numbers.begin(), numbers.end(), watch.number) != numbers.end()) {
            AddMatch(watch, mask, matches);
        }
    }
}

}  // namespace Engine
