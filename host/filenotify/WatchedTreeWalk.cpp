// SPDX-License-Identifier: Apache-2.0
// The walk through a tree, which lists and marks.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <string_view>

#include "host/filenotify/NotifyLog.h"
#include "host/filenotify/WatchedTree.h"
#include "host/sdk/Directory.h"
#include "host/sdk/Limits.h"
#include "host/sdk/Realtime.h"

namespace Engine {

namespace {

bool IsAbsent(std::error_code error)
{
    return error.value() == ESTALE || error.value() == ENOENT || error.value() == ENOTDIR;
}

}  // namespace

std::chrono::nanoseconds WatchedTree::TimeOfThread()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec};
}

// A directory of the filesystem. Where that of the place has just been moved, one above it is as good.
SDK::FileDescriptor WatchedTree::Anchor() const
{
    std::string path = place.directory;
    SDK::FileDescriptor opened;
    do {
        opened =
            SDK::Limits::Opened([&] { return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
        path.resize(path.rfind('/') == std::string::npos ? 0 : path.rfind('/'));
    } while (!opened && errno == ENOENT && !path.empty());
    return opened;
}

void WatchedTree::WalkIfIncomplete(std::size_t trees)
{
    if (isIncomplete && Clock::now() >= nextWalk) {
        Walk(trees);
    }
}

void WatchedTree::Walk(std::size_t trees)
{
    const SDK::FileDescriptor anchor = Anchor();
    if (!anchor) {
        return;  // with the next Set again
    }
    const std::chrono::nanoseconds begun = TimeOfThread();
    const bool wasFull = std::exchange(isFull, false);
    auto handlesBefore = std::exchange(handles, {});
    const auto marksBefore = std::exchange(marked, {});
    lateSinceWalk = 0;
    const bool wasLarge = handlesBefore.size() > InodeMarks::maxMarks;
    isMarked = events != 0 && !wasLarge;
    isIncomplete = !WalkAll(anchor.Get());
    isDoubtful = isIncomplete;
    if (isIncomplete) {
        handles = std::move(handlesBefore);
    }
    isMarked = isMarked && !isIncomplete && !isFull;
    for (const std::uint64_t key : marksBefore) {
        marks.Release(key);
    }
    if (!isMarked) {
        ReleaseMarks();
    }
    // The thread's own time: beside a storm the walk takes longer, but costs no more.
    nextWalk = Clock::now() + (TimeOfThread() - begun) * restPerWalk * trees;
    if (isFull && !wasFull) {
        NotifyLog::Warning(
            "%s holds more than %z files: accesses to the others through hard links, and in directories that are "
            "moved, are not seen",
            place.path, handles.size());
    }
    if (events != 0 && handles.size() > InodeMarks::maxMarks && !wasLarge) {
        NotifyLog::Notice(
            "%s holds more than %z files and directories: whatever is done on its filesystem is looked at", place.path,
            InodeMarks::maxMarks);
    }
}

// By handles, not paths: what is renamed meanwhile cannot lead the walk elsewhere. False: descriptors or memory ran
// out.
bool WatchedTree::WalkAll(int anchor)
{
    KernelHandle handle;
    if (!handle.Read(anchor, ".")) {
        Mark(handle, anchor, events | FAN_EVENT_ON_CHILD, false);
    }
    if (place.Exists() && !place.IsDirectory() && !handle.Read(AT_FDCWD, place.path.c_str())) {
        List(handle.View(place.fsid));
        MarkFile(handle, anchor, false);
    }
    std::error_code error;
    for (auto top = tops.begin(); top != tops.end();) {
        struct stat status {};
        const SDK::FileDescriptor directory = top->OpenDirectory(anchor, error);
        if (SDK::Limits::HasRunOut(error)) {
            return false;
        }
        const bool isGone = !directory || fstat(directory.Get(), &status) != 0 || status.st_nlink == 0;
        top = isGone ? tops.erase(top) : top + 1;
    }
    return WalkBelow(anchor, tops, false);
}

// A directory is marked before it is read: what is made in it is found there, or told of by an event.
bool WatchedTree::WalkBelow(int anchor, std::vector<KernelHandle> pending, bool isLate)
{
    std::error_code error;
    while (!pending.empty()) {
        const KernelHandle next = pending.back();
        pending.pop_back();
        SDK::FileDescriptor directory = next.OpenDirectory(anchor, error);
        if (SDK::Limits::HasRunOut(error)) {
            return false;
        }
        isMarked = isMarked && (directory || IsAbsent(error));
        if (directory && List(next.View(place.fsid))) {
            Mark(next, directory.Get(), events | FAN_EVENT_ON_CHILD, isLate);
            WalkDirectory(std::move(directory), pending, isLate);
        }
    }
    return true;
}

void WatchedTree::WalkDirectory(SDK::FileDescriptor directory, std::vector<KernelHandle>& pending, bool isLate)
{
    SDK::Directory entries{std::move(directory)};
    KernelHandle own;
    if (!entries || own.Read(entries.Descriptor(), ".")) {
        isMarked = false;
        return;
    }
    while (const dirent* entry = entries.Next()) {
        SDK::Realtime::Watch();
        const std::string_view name{entry->d_name};
        KernelHandle handle;
        if (name == "." || name == ".." || handle.Read(entries.Descriptor(), entry->d_name)) {
            continue;
        }
        if (handle.MountId() != own.MountId()) {
            // What lies below the mount point is hidden from here, and not from other mounts of the filesystem.
            isMarked = isMarked && entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN;
            continue;
        }
        if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) {
            pending.push_back(handle);  // listed when its turn comes
        }
        if (pending.size() >= room || (entry->d_type != DT_DIR && !List(handle.View(place.fsid)))) {
            isFull = true;
            return;
        }
        if (isMarked && entry->d_type != DT_DIR && !MarkAgain(handle)) {
            MarkFile(handle, entries.Descriptor(), isLate);
        }
    }
}

// False: there is no room.
bool WatchedTree::List(const FileHandle& handle)
{
    isFull = isFull || handles.size() >= room;
    return isFull ? handles.contains(KeyOf(handle)) : (handles.insert(KeyOf(handle)), true);
}

void WatchedTree::Mark(const KernelHandle& handle, int descriptor, std::uint64_t markEvents, bool isLate)
{
    const std::uint64_t key = KeyOf(handle.View(place.fsid));
    if (isMarked && marked.insert(key).second && marks.Add(handle, descriptor, place, markEvents, isLate)) {
        marked.erase(key);
        isMarked = false;
    }
}

// True: it is marked already.
bool WatchedTree::MarkAgain(const KernelHandle& file)
{
    const std::uint64_t key = KeyOf(file.View(place.fsid));
    return marked.contains(key) || (marks.Use(key, events & ~std::uint64_t{FAN_ONDIR}) && marked.insert(key).second);
}

// What is done to a file by a name elsewhere, or one that is gone and by which it is open, comes to no mark but its
// own. Returns whether it has another name, and had no mark.
bool WatchedTree::MarkFile(const KernelHandle& file, int anchor, bool isLate)
{
    const std::uint64_t key = KeyOf(file.View(place.fsid));
    struct stat status {};
    std::error_code error;
    const SDK::FileDescriptor opened = file.Open(anchor, O_PATH, error);
    isMarked = isMarked && (opened || IsAbsent(error));
    if (IsAbsent(error) || (opened && fstat(opened.Get(), &status) == 0 && status.st_nlink == 0)) {
        marked.erase(key);
        marks.Forget(key);
    }
    if (status.st_nlink == 0 || S_ISDIR(status.st_mode)) {
        return false;
    }
    const bool isNew = !marked.contains(key);
    Mark(file, opened.Get(), events & ~std::uint64_t{FAN_ONDIR}, isLate);
    return isNew && status.st_nlink > 1;
}

}  // namespace Engine
