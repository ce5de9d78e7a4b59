// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchedHandles.h"

#include <sys/fanotify.h>
#include <sys/stat.h>
#include <time.h>

#include <filesystem>
#include <string_view>

#include "host/filenotify/NotifyLog.h"
#include "host/sdk/Directory.h"
#include "host/sdk/Limits.h"
#include "host/sdk/Realtime.h"

namespace Engine {

namespace {

constexpr std::uint64_t comings = FAN_CREATE | FAN_MOVED_TO;
constexpr std::uint64_t goings = FAN_DELETE | FAN_MOVED_FROM;
constexpr int restPerWalk = 20;  // times the time that the walk took

std::chrono::nanoseconds TimeOfThread()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec};
}

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
        Move(tree, wanted);
    }
    trees = std::move(next);
    for (auto& [key, tree] : trees) {
        if (tree.isIncomplete && Clock::now() >= tree.nextWalk) {
            Walk(tree);
        }
    }
}

// The place may look the same and be another directory: numbers of inodes are used again, handles are not.
void WatchedHandles::Move(Tree& tree, const Place& wanted)
{
    const WatchPlace& place = wanted.place;
    const std::filesystem::path path{place.path};
    tree.parent.reset();
    KernelHandle handle;
    if (!wanted.isMountBelow && !handle.Read(AT_FDCWD, path.parent_path().c_str())) {
        tree.parent = KeyOf(handle.View(place.fsid));
        tree.name = path.filename();
    }
    const bool isDirectory = place.Exists() && place.IsDirectory() && !handle.Read(AT_FDCWD, place.path.c_str());
    const bool isSameTop =
        !tree.tops.empty() && KeyOf(handle.View(place.fsid)) == KeyOf(tree.tops.back().View(place.fsid));
    if (tree.place == place && (!isDirectory || isSameTop)) {
        return;
    }
    if (tree.place.fsid != place.fsid) {
        tree.tops.clear();
    }
    tree.place = place;
    tree.isIncomplete = true;
    if (isDirectory) {
        Top(tree, handle);
    }
}

// What happens in the directory is its watch's business from now on, whenever it is walked.
void WatchedHandles::Top(Tree& tree, const KernelHandle& top)
{
    const std::uint64_t key = KeyOf(top.View(tree.place.fsid));
    std::erase_if(tree.tops, [&](const KernelHandle& known) { return KeyOf(known.View(tree.place.fsid)) == key; });
    tree.tops.push_back(top);
    if (tree.tops.size() > maxFollowed) {
        tree.tops.erase(tree.tops.begin());
    }
    tree.handles.insert(key);
}

void WatchedHandles::Walk(Tree& tree) const
{
    const SDK::FileDescriptor anchor = SDK::Limits::Opened(
        [&tree] { return open(tree.place.directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    if (!anchor) {
        return;  // with the next Set again
    }
    const std::chrono::nanoseconds begun = TimeOfThread();
    const bool wasFull = std::exchange(tree.isFull, false);
    auto before = std::exchange(tree.handles, {});
    tree.isIncomplete = !WalkFrom(tree, anchor.Get());
    tree.isDoubtful = tree.isIncomplete;
    if (tree.isIncomplete) {
        tree.handles = std::move(before);
    }
    // The thread's own time: beside a storm the walk takes longer, but costs no more.
    tree.nextWalk = Clock::now() + (TimeOfThread() - begun) * restPerWalk * trees.size();
    if (tree.isFull && !wasFull) {
        NotifyLog::Warning(
            "%s holds more than %z files: accesses to the others through hard links, and in directories that are "
            "moved, are not seen",
            tree.place.path, tree.handles.size());
    }
}

// By handles, not paths: what is renamed meanwhile cannot lead the walk elsewhere. False: descriptors or memory ran
// out.
bool WatchedHandles::WalkFrom(Tree& tree, int anchor) const
{
    KernelHandle file;
    if (tree.place.Exists() && !tree.place.IsDirectory() && !file.Read(AT_FDCWD, tree.place.path.c_str())) {
        List(tree, file.View(tree.place.fsid));
    }
    std::error_code error;
    for (auto top = tree.tops.begin(); top != tree.tops.end();) {
        struct stat status {};
        const SDK::FileDescriptor directory = top->OpenDirectory(anchor, error);
        if (SDK::Limits::HasRunOut(error)) {
            return false;
        }
        const bool isGone = !directory || fstat(directory.Get(), &status) != 0 || status.st_nlink == 0;
        top = isGone ? tree.tops.erase(top) : top + 1;
    }
    std::vector<KernelHandle> pending = tree.tops;
    while (!pending.empty()) {
        const KernelHandle next = pending.back();
        pending.pop_back();
        SDK::FileDescriptor directory = next.OpenDirectory(anchor, error);
        if (SDK::Limits::HasRunOut(error)) {
            return false;
        }
        if (directory && List(tree, next.View(tree.place.fsid))) {
            WalkDirectory(tree, std::move(directory), pending);
        }
    }
    return true;
}

void WatchedHandles::WalkDirectory(Tree& tree, SDK::FileDescriptor directory, std::vector<KernelHandle>& pending) const
{
    SDK::Directory entries{std::move(directory)};
    KernelHandle own;
    if (!entries || own.Read(entries.Descriptor(), ".")) {
        return;
    }
    while (const dirent* entry = entries.Next()) {
        SDK::Realtime::Watch();
        const std::string_view name{entry->d_name};
        KernelHandle handle;
        if (name == "." || name == ".." || handle.Read(entries.Descriptor(), entry->d_name) ||
            handle.MountId() != own.MountId()) {
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
    const bool isNewDirectory = (event.mask & FAN_ONDIR) != 0 && (event.mask & comings) != 0 && event.HasObject();
    for (auto& [key, tree] : trees) {
        if (isNewDirectory && tree.parent == parent && tree.name == event.name) {
            Top(tree, KernelHandle{event.object});
            tree.isIncomplete = true;
        }
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
