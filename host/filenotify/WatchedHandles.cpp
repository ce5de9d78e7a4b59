// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchedHandles.h"

#include <dirent.h>
#include <sys/fanotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "host/filenotify/NotifyLog.h"
#include "host/sdk/Realtime.h"

namespace Engine {

namespace {

constexpr std::uint64_t comings = FAN_CREATE | FAN_MOVED_TO;
constexpr std::uint64_t goings = FAN_DELETE | FAN_MOVED_FROM;
constexpr int restPerWalk = 20;  // times the time that the walk took

}  // namespace

// Different handles of one key would only make an access reported that need not be.
std::uint64_t WatchedHandles::KeyOf(const FileHandle& handle)
{
    const std::string_view bytes{reinterpret_cast<const char*>(handle.bytes.data()), handle.bytes.size()};
    constexpr std::uint64_t odd = 0x9E3779B97F4A7C15U;
    return std::hash<std::string_view>{}(bytes) ^ ((handle.fsid + static_cast<std::uint32_t>(handle.type)) * odd);
}

void WatchedHandles::Set(const std::vector<Place>& places)
{
    std::map<std::pair<int, std::string>, Tree> next;
    for (const Place& wanted : places) {
        const std::pair key{wanted.watch, wanted.isMountBelow ? wanted.place.path : std::string{}};
        auto known = trees.extract(key);
        Tree& tree = known.empty() ? next[key] : next.insert(std::move(known)).position->second;
        Move(tree, wanted.place);
    }
    trees = std::move(next);
    for (auto& [key, tree] : trees) {
        if (tree.isIncomplete && Clock::now() >= tree.nextWalk) {
            Walk(tree);
        }
    }
}

// The place may look the same and be another directory: numbers of inodes are used again, handles are not.
void WatchedHandles::Move(Tree& tree, const WatchPlace& place)
{
    KernelHandle top;
    const bool isDirectory = place.Exists() && place.IsDirectory() && !top.Read(AT_FDCWD, place.path.c_str());
    const std::uint64_t key = KeyOf(top.View(place.fsid));
    const auto isTop = [&](const KernelHandle& known) {
        return KeyOf(known.View(place.fsid)) == key;
    };
    if (tree.place == place && (!isDirectory || (!tree.tops.empty() && isTop(tree.tops.back())))) {
        return;
    }
    if (tree.place.fsid != place.fsid) {
        tree.tops.clear();
    }
    tree.place = place;
    tree.isIncomplete = true;
    if (!isDirectory) {
        return;
    }
    std::erase_if(tree.tops, isTop);
    tree.tops.push_back(top);
    if (tree.tops.size() > maxFollowed) {
        tree.tops.erase(tree.tops.begin());
    }
}

void WatchedHandles::Walk(Tree& tree) const
{
    const SDK::FileDescriptor anchor{
        open(tree.place.directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    if (!anchor) {
        return;  // with the next Set again
    }
    const Clock::time_point begun = Clock::now();
    const bool wasFull = std::exchange(tree.isFull, false);
    tree.isIncomplete = false;
    tree.isDoubtful = false;
    tree.handles.clear();
    WalkFrom(tree, anchor.Get());
    const Clock::time_point ended = Clock::now();
    tree.nextWalk = ended + (ended - begun) * restPerWalk * trees.size();
    if (tree.isFull && !wasFull) {
        NotifyLog::Warning(
            "%s holds more than %z files: accesses to the others through hard links, and in directories that are "
            "moved, are not seen",
            tree.place.path, tree.handles.size());
    }
}

// By handles, not paths: what is renamed meanwhile cannot lead the walk elsewhere.
void WatchedHandles::WalkFrom(Tree& tree, int anchor) const
{
    KernelHandle file;
    if (tree.place.Exists() && !tree.place.IsDirectory() && !file.Read(AT_FDCWD, tree.place.path.c_str())) {
        List(tree, file.View(tree.place.fsid));
    }
    std::erase_if(tree.tops, [anchor](const KernelHandle& top) {
        struct stat status {};
        const SDK::FileDescriptor directory = top.OpenDirectory(anchor);
        return !directory || fstat(directory.Get(), &status) != 0 || status.st_nlink == 0;
    });
    std::vector<KernelHandle> pending = tree.tops;
    while (!pending.empty()) {
        const KernelHandle next = pending.back();
        pending.pop_back();
        SDK::FileDescriptor directory = next.OpenDirectory(anchor);
        if (directory && List(tree, next.View(tree.place.fsid))) {
            WalkDirectory(tree, std::move(directory), pending);
        }
    }
}

void WatchedHandles::WalkDirectory(Tree& tree, SDK::FileDescriptor directory, std::vector<KernelHandle>& pending) const
{
    KernelHandle own;
    const int number = directory.Get();
    const std::unique_ptr<DIR, int (*)(DIR*)> stream{fdopendir(number), &closedir};
    if (stream == nullptr) {
        return;
    }
    static_cast<void>(directory.Release());  // the stream's now
    if (own.Read(number, ".")) {
        return;
    }
    while (const dirent* entry = readdir(stream.get())) {
        SDK::Realtime::Watch();
        const std::string_view name{entry->d_name};
        KernelHandle handle;
        if (name == "." || name == ".." || handle.Read(number, entry->d_name) || handle.MountId() != own.MountId()) {
            continue;
        }
        if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) {
            pending.push_back(handle);  // listed when its turn comes
        }
        if (pending.size() >= Share() || (entry->d_type != DT_DIR && !List(tree, handle.View(tree.place.fsid)))) {
            tree.isFull = true;
            return;
        }
    }
}

// False: there is no room.
bool WatchedHandles::List(Tree& tree, const FileHandle& handle) const
{
    tree.isFull = tree.isFull || tree.handles.size() >= Share();
    return tree.isFull ? tree.handles.contains(KeyOf(handle)) : (tree.handles.insert(KeyOf(handle)), true);
}

void WatchedHandles::Follow(const FanotifyEvent& event)
{
    if (trees.empty() || (event.mask & (comings | goings)) == 0) {
        return;
    }
    const std::uint64_t parent = KeyOf(event.directory);
    for (auto& [key, tree] : trees) {
        if (!tree.handles.contains(parent)) {
            continue;
        }
        tree.isDoubtful = tree.isDoubtful || (event.mask & goings) != 0;
        const bool isTree = (event.mask & FAN_ONDIR) != 0 && (event.mask & FAN_MOVED_TO) != 0;
        if ((event.mask & comings) == 0) {
            continue;
        }
        tree.isIncomplete = tree.isIncomplete || isTree || !event.HasObject();
        if (event.HasObject()) {
            List(tree, event.object);
        }
    }
}

void WatchedHandles::EventsLost()
{
    for (auto& [key, tree] : trees) {
        tree.isIncomplete = true;
        tree.isDoubtful = true;
    }
}

WatchedHandles::Relation WatchedHandles::RelationOf(const Tree& tree, const FanotifyEvent& event)
{
    if (tree.handles.contains(KeyOf(event.directory))) {
        return Relation::Directory;
    }
    return event.HasObject() && tree.handles.contains(KeyOf(event.object)) ? Relation::Object : Relation::None;
}

std::vector<int> WatchedHandles::WatchesOf(const FanotifyEvent& event, std::uint64_t& mask)
{
    std::vector<int> watches;
    mask = event.mask & ~goings & ~std::uint64_t{FAN_MOVED_TO};
    for (auto& [key, tree] : trees) {
        Relation relation = RelationOf(tree, event);
        if (relation != Relation::None && tree.isDoubtful && Clock::now() >= tree.nextWalk) {
            Walk(tree);
            relation = RelationOf(tree, event);
        }
        if (relation == Relation::None) {
            continue;
        }
        const bool isDirectorysMove = (event.mask & FAN_ONDIR) != 0;
        mask = relation == Relation::Directory || isDirectorysMove ? event.mask : mask;
        watches.push_back(key.first);
    }
    return watches;
}

}  // namespace Engine
