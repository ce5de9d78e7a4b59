// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/Marks.h"

#include <sys/fanotify.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "host/filenotify/NotifyLog.h"
#include "host/sdk/Limits.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

using Scope = FanotifyGroup::Scope;

// Reasons of fanotify_mark(2) for which a filesystem mark is out of the question and an inode mark may not be.
bool TakesNoFileSystemMark(std::error_code error)
{
    return error == std::errc::no_such_device || error == std::errc::cross_device_link ||
           error == std::errc::operation_not_supported;
}

void ReportPlace(const std::string& path, const WatchPlace* before, const WatchPlace& now)
{
    if (!now.Exists() && (before == nullptr || before->Exists())) {
        NotifyLog::Warning("watched path %s is not there, it is watched again when it comes back", path);
    } else if (before != nullptr && now.Exists() && !before->Exists()) {
        NotifyLog::Notice("watched path %s is there now", path);
    } else if (before != nullptr && now.Exists() && !(now == *before)) {
        NotifyLog::Warning("watched path %s was replaced, going on with what is there now", path);
    }
}

}  // namespace

void Marks::Update(WatchTable& watches)
{
    resolver.Close();
    std::vector<Target> targets = FindTargets(watches);
    MarkFileSystems(targets);
    std::vector<TreeMarks::Tree> wantedTrees = WantedTrees(targets);
    if (trees.WillStartOver(wantedTrees)) {
        handles.StartOver();
        MarkFileSystems(targets);
    }
    const std::error_code treeError = trees.Set(wantedTrees);
    handles.Set(WantedHandles(targets));
    MarkFileSystems(targets);  // those that have no marks of their own any more
    Wanted wanted = WantedMarks(targets);
    wanted.trees = std::move(wantedTrees);
    RemoveUnwanted(wanted);
    handles.RemoveUnwantedMarks(wanted.trees.empty());
    std::map<int, Target> found;
    for (Target& target : targets) {
        if (TakesNoFileSystemMark(target.error)) {
            target.error = treeError;
        }
        if (!target.isMountBelow) {
            found.emplace(target.watch, std::move(target));
        }
    }
    Report(watches, found, wanted);
    watched = std::move(found);
    current = std::move(wanted);
}

// A filesystem mounted below a watched directory lies below it like everything else there, but has marks of its own.
std::vector<Marks::Target> Marks::FindTargets(WatchTable& watches)
{
    std::vector<Target> targets;
    std::vector<Target> below;
    std::string mountInfo;
    if (!watches.Watches().empty()) {
        constexpr long maxBytes = 16L * 1024 * 1024;
        SDK::FileUtils::ReadFile("/proc/self/mountinfo", mountInfo, maxBytes);
    }
    const std::vector<std::string> mounts = DataMounts(mountInfo);
    for (Watch& watch : watches.Watches()) {
        const std::uint64_t events = watch.entry.masks.Union();
        const bool changes = watch.entry.changes;
        const WatchPlace& top =
            targets.emplace_back(Target{watch.number, FindPlace(watch.entry.path), events, changes}).place;
        watch.path = top.path;
        for (const std::string& mount : mounts) {
            if (top.IsDirectory() && mount != top.path && LiesWithin(mount, top.path)) {
                below.push_back({watch.number, FindPlace(mount), events, changes, true});
            }
        }
    }
    std::move(below.begin(), below.end(), std::back_inserter(targets));
    return targets;
}

// What is to be told by the filesystem's mark. It tells what comes and goes for the tree's marks, too.
std::uint64_t Marks::FileSystemEvents(const Target& target) const
{
    constexpr std::uint64_t names = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_ONDIR;
    return handles.IsMarked({target.watch, target.isMountBelow, target.place})
               ? names | (target.events & ~InodeMarks::entryEvents)
               : target.events;
}

// Only adds to what is set. A directory that is moved to and fro may be gone again since the look at it.
void Marks::MarkFileSystems(std::vector<Target>& targets)
{
    constexpr int looks = 8;
    for (Target& target : targets) {
        std::uint64_t events = FileSystemEvents(target);
        target.error = group.Add(Scope::FileSystem, target.place.directory, events);
        for (int look = 0; look < looks && target.error == std::errc::no_such_file_or_directory; ++look) {
            target.place = FindPlace(target.place.path);
            events = FileSystemEvents(target);
            target.error = group.Add(Scope::FileSystem, target.place.directory, events);
        }
        if (!target.error) {
            FileSystemMark& mark = current.marks[target.place.fsid];
            mark.directory = target.place.directory;
            mark.events |= events;
        }
    }
}

std::vector<TreeMarks::Tree> Marks::WantedTrees(const std::vector<Target>& targets)
{
    std::vector<TreeMarks::Tree> wanted;
    for (const Target& target : targets) {
        if (TakesNoFileSystemMark(target.error) && !target.isMountBelow) {
            wanted.push_back({target.place.directory, target.place.IsDirectory(), target.events});
        }
    }
    return wanted;
}

// By the kernel's answers. A mount below that cannot be marked is excluded: it is no reason to refuse the watch.
Marks::Wanted Marks::WantedMarks(const std::vector<Target>& targets) const
{
    Wanted wanted;
    for (const Target& target : targets) {
        const WatchPlace& place = target.place;
        if (target.error) {
            continue;
        }
        FileSystemMark& mark = wanted.marks[place.fsid];
        mark.directory = place.directory;
        mark.events |= FileSystemEvents(target);
        const bool isKnown = std::any_of(wanted.mounts.begin(), wanted.mounts.end(), [&place](const Mount& mount) {
            return mount.fsid == place.fsid && mount.id == place.mount;
        });
        if (!isKnown && wanted.mounts.size() < maxMounts) {
            wanted.mounts.push_back({place.fsid, place.mount, place.directory});
        } else if (!isKnown) {
            wanted.mountsExcluded = true;
        }
    }
    return wanted;
}

// A tree is marked only where events tell what is new in it, and where a subscriber is told of each file that comes and
// each name that one gets: what is done before its mark is not.
std::vector<WatchedHandles::Place> Marks::WantedHandles(const std::vector<Target>& targets) const
{
    std::vector<WatchedHandles::Place> places;
    for (const Target& target : targets) {
        if (target.changes && !target.error) {
            const bool isMarked = group.WithTargets() && (target.events & FAN_CREATE) != 0;
            const std::uint64_t events = target.events & (InodeMarks::entryEvents | FAN_ONDIR);
            places.push_back({target.watch, target.isMountBelow, target.place, isMarked ? events : 0});
        }
    }
    return places;
}

void Marks::StartOver()
{
    trees.StartOver();
    handles.StartOver();
    current.marks.clear();
}

void Marks::RemoveUnwanted(const Wanted& wanted) const
{
    bool startOver = false;
    for (const auto& [fsid, mark] : current.marks) {
        const auto kept = wanted.marks.find(fsid);
        const FileSystemMark target = kept == wanted.marks.end() ? FileSystemMark{mark.directory} : kept->second;
        const std::uint64_t unwanted = mark.events & ~target.events;
        if (unwanted == 0) {
            continue;
        }
        // Where the path has gone, or is another filesystem's by now, the mark cannot be named any more.
        const WatchPlace place = FindPlace(target.directory);
        startOver = startOver || place.fsid != fsid || group.Remove(Scope::FileSystem, place.directory, unwanted);
    }
    if (!startOver) {
        return;
    }
    group.RemoveAll(Scope::FileSystem);
    for (const auto& [fsid, mark] : wanted.marks) {
        if (const std::error_code error = group.Add(Scope::FileSystem, mark.directory, mark.events)) {
            NotifyLog::Warning("%s cannot be watched until the next look: %s", mark.directory, error.message());
        }
    }
}

void Marks::Report(const WatchTable& watches, const std::map<int, Target>& found, const Wanted& wanted) const
{
    for (const Watch& watch : watches.Watches()) {
        const Target& now = found.at(watch.number);
        const auto before = watched.find(watch.number);
        const bool isNew = before == watched.end();
        ReportPlace(watch.entry.path, isNew ? nullptr : &before->second.place, now.place);
        if (now.error && (isNew || before->second.error != now.error)) {
            NotifyLog::Warning("watched path %s is not covered: %s", watch.entry.path, now.error.message());
        }
    }
    if (wanted.mountsExcluded && !current.mountsExcluded) {
        NotifyLog::Warning("more than %z mounts lie below the watched paths, the others are excluded", maxMounts);
    }
}

std::error_code Marks::ErrorOf(int watch) const
{
    const auto known = watched.find(watch);
    return known == watched.end() ? std::error_code{} : known->second.error;
}

Marks::Answer Marks::PathsOf(const FileHandle& directory, const std::function<bool(const std::string&)>& take)
{
    if (const std::string* path = trees.PathOf(directory); path != nullptr && take(*path)) {
        return Answer::Done;
    }
    Answer answer = Answer::Done;
    for (const Mount& mount : current.mounts) {
        if (mount.fsid != directory.fsid) {
            continue;
        }
        std::error_code error;
        const std::string& path = resolver.PathOf(mount.directory, directory, error);
        if (!error && take(path)) {
            return Answer::Done;
        }
        if (SDK::Limits::HasRunOut(error)) {
            answer = Answer::Failing;
        } else if (error && error != std::errc::cross_device_link && answer == Answer::Done) {
            answer = Answer::Gone;
        }
    }
    return answer;
}

}  // namespace Engine
