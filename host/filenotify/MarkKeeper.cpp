// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/MarkKeeper.h"

#include <algorithm>

#include "host/filenotify/NotifyLog.h"
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

std::vector<MountInfo> HostMounts()
{
    constexpr long maxBytes = 16L * 1024 * 1024;
    std::string text;
    SDK::FileUtils::ReadFile("/proc/self/mountinfo", text, maxBytes);
    return ParseMountInfo(text);
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

void MarkKeeper::Update(WatchTable& watches)
{
    resolver.Close();
    Plan plan;
    for (Watch& watch : watches.Watches()) {
        Locate(watch, plan);
    }
    const auto isDirectory = [](const auto& entry) {
        return entry.second.place.path == entry.second.place.directory;
    };
    if (std::any_of(plan.states.begin(), plan.states.end(), isDirectory)) {
        const std::vector<MountInfo> hostMounts = HostMounts();
        for (const Watch& watch : watches.Watches()) {
            CoverBelow(watch, hostMounts, plan);
        }
    }
    SetTrees(plan);
    DropUnwanted(plan);
    Report(watches, plan);
    current = std::move(plan);
}

void MarkKeeper::Locate(Watch& watch, Plan& plan)
{
    State& state = plan.states[watch.number];
    state.place = FindPlace(watch.entry.path, !watch.options.dontFollow);
    watch.path = state.place.path;
    if (!watch.spent) {
        state.error = Cover(state.place, watch.entry.masks.Union(), plan);
    }
}

std::error_code MarkKeeper::Cover(const WatchPlace& place, std::uint64_t events, Plan& plan)
{
    const std::error_code error = group.Add(Scope::FileSystem, place.directory, events);
    if (TakesNoFileSystemMark(error)) {
        plan.trees.push_back({place.directory, place.directory == place.path, events});
        return {};
    }
    if (error) {
        return error;
    }
    FileSystemMark& mark = plan.marks[place.fsid];
    mark.directory = place.directory;
    mark.events |= events;
    const bool known = std::any_of(plan.mounts.begin(), plan.mounts.end(), [&](const Mount& mount) {
        return mount.fsid == place.fsid && mount.id == place.mount;
    });
    if (!known && plan.mounts.size() < maxMounts) {
        plan.mounts.push_back({place.fsid, place.mount, place.directory});
    }
    plan.mountsLeftOut = plan.mountsLeftOut || (!known && plan.mounts.size() >= maxMounts);
    return {};
}

// A filesystem mounted below a watched directory lies below it like everything else there, but has marks of its own.
// One that cannot be marked is left out: that it is there is no reason to refuse the watch.
void MarkKeeper::CoverBelow(const Watch& watch, const std::vector<MountInfo>& hostMounts, Plan& plan)
{
    const WatchPlace& top = plan.states[watch.number].place;
    if (watch.spent || top.path != top.directory) {
        return;
    }
    for (const std::string& mountPoint : DataMountsBelow(hostMounts, top.path)) {
        const WatchPlace place = FindPlace(mountPoint, false);
        const std::size_t treesBefore = plan.trees.size();
        const std::error_code ignored = Cover(place, watch.entry.masks.Union(), plan);
        if (ignored || plan.trees.size() != treesBefore) {
            plan.trees.resize(treesBefore);
        }
    }
}

void MarkKeeper::SetTrees(Plan& plan)
{
    const std::error_code error = trees.Set(plan.trees);
    if (!error) {
        return;
    }
    for (auto& [number, state] : plan.states) {
        const std::string& directory = state.place.directory;
        const auto uses = [&directory](const TreeMarks::Tree& tree) {
            return tree.top == directory;
        };
        if (std::any_of(plan.trees.begin(), plan.trees.end(), uses)) {
            state.error = error;
        }
    }
}

void MarkKeeper::DropUnwanted(const Plan& plan)
{
    bool startOver = false;
    for (const auto& [fsid, mark] : current.marks) {
        const auto kept = plan.marks.find(fsid);
        const std::uint64_t unwanted = mark.events & ~(kept == plan.marks.end() ? 0 : kept->second.events);
        const std::string& directory = kept == plan.marks.end() ? mark.directory : kept->second.directory;
        if (unwanted == 0) {
            continue;
        }
        // Where the path has gone, or is another filesystem's by now, the mark cannot be named any more.
        startOver = startOver || FindPlace(directory, false).fsid != fsid ||
                    group.Remove(Scope::FileSystem, directory, unwanted);
    }
    if (!startOver) {
        return;
    }
    group.RemoveAll(Scope::FileSystem);
    for (const auto& [fsid, mark] : plan.marks) {
        if (const std::error_code error = group.Add(Scope::FileSystem, mark.directory, mark.events)) {
            NotifyLog::Warning("%s cannot be watched until the next look: %s", mark.directory, error.message());
        }
    }
}

void MarkKeeper::Report(const WatchTable& watches, const Plan& plan) const
{
    for (const Watch& watch : watches.Watches()) {
        const State& now = plan.states.at(watch.number);
        const auto before = current.states.find(watch.number);
        const bool isNew = before == current.states.end();
        ReportPlace(watch.entry.path, isNew ? nullptr : &before->second.place, now.place);
        if (now.error && (isNew || before->second.error != now.error)) {
            NotifyLog::Warning("watched path %s is not covered: %s", watch.entry.path, now.error.message());
        }
    }
    if (plan.mountsLeftOut && !current.mountsLeftOut) {
        NotifyLog::Warning("more than %z mounts lie below the watched paths, the rest is left out", maxMounts);
    }
}

std::error_code MarkKeeper::ErrorOf(int watch) const
{
    const auto state = current.states.find(watch);
    return state == current.states.end() ? std::error_code{} : state->second.error;
}

bool MarkKeeper::Exists(int watch) const
{
    const auto state = current.states.find(watch);
    return state != current.states.end() && state->second.place.Exists();
}

DirectoryLookup::Answer MarkKeeper::PathsOf(const DirectoryHandle& directory,
                                            const std::function<bool(const std::string&)>& take)
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
        const std::string path = resolver.PathOf(mount.directory, directory, error);
        if (!error && take(path)) {
            return Answer::Done;
        }
        if (error == std::errc::too_many_files_open || error == std::errc::too_many_files_open_in_system ||
            error == std::errc::not_enough_memory) {
            answer = Answer::Failing;
        } else if (error && error != std::errc::cross_device_link && answer == Answer::Done) {
            answer = Answer::Gone;
        }
    }
    return answer;
}

}  // namespace Engine
