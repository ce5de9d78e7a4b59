// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchedTree.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <algorithm>
#include <filesystem>

#include "host/filenotify/AccessBatch.h"

namespace Engine {

namespace {

constexpr std::uint64_t comings = FAN_CREATE | FAN_MOVED_TO;
constexpr std::uint64_t goings = FAN_DELETE | FAN_MOVED_FROM;
constexpr int maxLate = 16;                      // chances to miss an access since the last walk
constexpr std::chrono::seconds shortestRest{1};  // before marks that were given up are set anew
constexpr std::chrono::seconds longestRest{64};

}  // namespace

WatchedTree::WatchedTree(InodeMarks& marks) : marks(marks), late(SDK::Counters::Get(NotifyCounterName::late))
{
}

// The place may look the same and be another directory: numbers of inodes are used again, handles are not.
void WatchedTree::MoveTo(const Place& wanted, std::size_t roomNow)
{
    const WatchPlace& next = wanted.place;
    room = roomNow;
    KernelHandle handle;
    const bool isDirectory = next.Exists() && next.IsDirectory() && !handle.Read(AT_FDCWD, next.path.c_str());
    const bool isSameTop = !tops.empty() && KeyOf(handle.View(next.fsid)) == KeyOf(tops.back().View(next.fsid));
    const bool isSame = place == next && (!isDirectory || isSameTop);
    if (place.fsid != next.fsid) {
        tops.clear();
    }
    if (isMarked && !marks.IsThere(place.directory)) {
        std::for_each(marked.begin(), marked.end(), [this](std::uint64_t key) { marks.Doubt(key); });
        MarksLost();
    }
    if (!isSame || events != wanted.events) {
        MarksLost();
    }
    place = next;
    events = wanted.events;
    names.clear();
    if (!wanted.isMountBelow) {
        FindNames();
    }
    if (isDirectory && !isSame) {
        Top(handle);
    }
}

void WatchedTree::FindNames()
{
    for (std::filesystem::path path{place.path}; path.has_relative_path(); path = path.parent_path()) {
        const std::filesystem::path parent = path.parent_path();
        KernelHandle handle;
        if (FileSystemId(parent) == place.fsid && !handle.Read(AT_FDCWD, parent.c_str())) {
            names.emplace_back(KeyOf(handle.View(place.fsid)), path.filename());
        } else if (!names.empty()) {
            return;
        }
    }
}

// What happens in the directory is its watch's business from now on, whenever it is walked.
void WatchedTree::Top(const KernelHandle& top)
{
    const std::uint64_t key = KeyOf(top.View(place.fsid));
    std::erase_if(tops, [&](const KernelHandle& known) { return KeyOf(known.View(place.fsid)) == key; });
    tops.push_back(top);
    if (tops.size() > maxFollowed) {
        tops.erase(tops.begin());
    }
    handles.insert(key);
}

void WatchedTree::Follow(const FanotifyEvent& event, std::uint64_t parent)
{
    const bool comes = (event.mask & comings) != 0 && event.HasObject();
    if (handles.contains(parent)) {
        FollowEntry(event, parent);
    } else if (comes && MayBeLate() && (event.mask & FAN_CREATE) != 0) {
        const std::uint64_t file = KeyOf(event.object);  // now with a link elsewhere
        CountLate(handles.contains(file) && !marked.contains(file) ? 1 : 0);
    }
    if (comes) {
        FollowName(event, parent);
    }
}

// Something else is at the watched path, or at one of those above it.
void WatchedTree::FollowName(const FanotifyEvent& event, std::uint64_t parent)
{
    for (const auto& [directory, name] : names) {
        if (directory != parent || name != event.name) {
            continue;
        }
        if (&name != &names.front().second) {
            CountLate(isMarked ? maxLate + 1 : 0);  // and it is another tree
        } else if ((event.mask & FAN_ONDIR) != 0) {
            Top(KernelHandle{event.object});
            Enter(KernelHandle{event.object}, (event.mask & FAN_MOVED_TO) != 0);
            isIncomplete = isIncomplete || !isMarked;
        } else {
            List(event.object);
            FollowFile(event);
        }
    }
}

void WatchedTree::FollowEntry(const FanotifyEvent& event, std::uint64_t parent)
{
    const bool isDirectory = (event.mask & FAN_ONDIR) != 0;
    isDoubtful = isDoubtful || (event.mask & goings) != 0;
    if (MayBeLate() && !isDirectory && (!marked.contains(parent) || marks.IsLate(parent))) {
        CountLate(1);
    }
    if (!isDirectory) {
        FollowFile(event);
    } else if (isMarked && event.HasObject() && (event.mask & FAN_DELETE) != 0) {
        marked.erase(KeyOf(event.object));
        marks.Forget(KeyOf(event.object));
    }
    if ((event.mask & comings) == 0) {
        return;
    }
    if (!event.HasObject()) {
        isIncomplete = true;
        return;
    }
    List(event.object);
    if (isDirectory) {
        const bool wasMoved = (event.mask & FAN_MOVED_TO) != 0;
        isIncomplete = isIncomplete || (wasMoved && !isMarked);
        Enter(KernelHandle{event.object}, wasMoved);
    }
}

void WatchedTree::FollowFile(const FanotifyEvent& event)
{
    if (MayBeLate() && event.HasObject() && (event.mask & (comings | FAN_DELETE)) != 0) {
        changed.insert_or_assign(KeyOf(event.object), KernelHandle{event.object});
    }
}

void WatchedTree::Settle()
{
    const auto files = std::exchange(changed, {});
    if (files.empty() || !MayBeLate()) {
        return;
    }
    const bool wasMarked = isMarked;
    const SDK::FileDescriptor anchor = Anchor();
    for (const auto& [key, file] : files) {
        CountLate(MarkFile(file, anchor.Get(), true) ? 1 : 0);
    }
    if (wasMarked && !isMarked) {
        GiveUpMarks();
    }
}

// Marks and lists a directory that came, at once. One that is marked has only been away.
void WatchedTree::Enter(const KernelHandle& directory, bool wasMoved)
{
    if (!MayBeLate() || marked.contains(KeyOf(directory.View(place.fsid)))) {
        return;
    }
    const std::chrono::nanoseconds begun = TimeOfThread();
    const std::size_t before = handles.size();
    const SDK::FileDescriptor anchor = Anchor();
    const bool wasMarked = isMarked;
    if (!anchor || !WalkBelow(anchor.Get(), {directory}, true) || isFull || isMarked != wasMarked) {
        GiveUpMarks();
    }
    nextWalk = std::max(nextWalk, Clock::now()) + (TimeOfThread() - begun) * restPerWalk;
    if (wasMoved) {
        CountLate(std::max<std::size_t>(1, handles.size() - before));  // it may be gone with what was in it
    }
}

void WatchedTree::CountLate(std::size_t entries)
{
    late.fetch_add(entries, std::memory_order_relaxed);
    lateSinceWalk += entries;
    if (isMarked && lateSinceWalk > maxLate) {
        GiveUpMarks();
    }
}

// The filesystem's mark has to tell everything until the tree has been walked. The more often that happens, the longer.
void WatchedTree::GiveUpMarks()
{
    const Clock::time_point now = Clock::now();
    rest = now - gaveUpAt < longestRest * 2 ? std::min(rest * 2, longestRest) : shortestRest;
    gaveUpAt = now;
    gaveUpBefore = marks.TimesEmpty();
    isMarked = false;
    isIncomplete = true;
    nextWalk = std::max(nextWalk, now + rest);
}

void WatchedTree::ReleaseMarks()
{
    for (const std::uint64_t key : std::exchange(marked, {})) {
        marks.Release(key);
    }
}

void WatchedTree::MarksLost()
{
    ReleaseMarks();
    isMarked = false;
    isIncomplete = true;
}

void WatchedTree::EventsLost()
{
    isMarked = false;
    isIncomplete = true;
    isDoubtful = true;
}

WatchedTree::Relation WatchedTree::Look(const FanotifyEvent& event) const
{
    if (handles.contains(KeyOf(event.directory))) {
        return Relation::Directory;
    }
    return event.HasObject() && handles.contains(KeyOf(event.object)) ? Relation::Object : Relation::None;
}

WatchedTree::Relation WatchedTree::RelationOf(const FanotifyEvent& event, std::size_t trees)
{
    const Relation relation = Look(event);
    if (relation == Relation::None || !isDoubtful || Clock::now() < nextWalk) {
        return relation;
    }
    Walk(trees);
    return Look(event);
}

}  // namespace Engine
