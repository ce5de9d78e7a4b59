// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/InodeMarks.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/sdk/Limits.h"

namespace Engine {

bool InodeMarks::Use(std::uint64_t key, std::uint64_t events)
{
    const auto known = marks.find(key);
    if (known == marks.end() || known->second.isDoubtful || (events & ~known->second.events) != 0) {
        return false;
    }
    ++known->second.users;
    return true;
}

std::error_code InodeMarks::Add(const KernelHandle& handle, int descriptor, const WatchPlace& place,
                                std::uint64_t events, bool isLate)
{
    anchors[place.fsid] = place.directory;
    const std::uint64_t key = KeyOf(handle.View(place.fsid));
    if (Use(key, events)) {
        return {};
    }
    const auto known = marks.find(key);
    if (known == marks.end() && marks.size() >= maxMarks) {
        return std::make_error_code(std::errc::no_space_on_device);
    }
    if (const std::error_code error = group.Add(descriptor, events)) {
        return error;
    }
    Mark& mark = known != marks.end()
                     ? known->second
                     : marks.emplace(key, Mark{handle, place.fsid, 0, 0, isLate, false, timesEmpty}).first->second;
    mark.events |= events;
    mark.isDoubtful = false;
    ++mark.users;
    return {};
}

void InodeMarks::Release(std::uint64_t key)
{
    const auto known = marks.find(key);
    if (known != marks.end() && known->second.users != 0) {
        --known->second.users;
        anyReleased = anyReleased || known->second.users == 0;
    }
}

void InodeMarks::Doubt(std::uint64_t key)
{
    if (const auto known = marks.find(key); known != marks.end()) {
        known->second.isDoubtful = true;
    }
}

bool InodeMarks::IsLate(std::uint64_t key) const
{
    const auto known = marks.find(key);
    return known == marks.end() || (known->second.isLate && known->second.setAt == timesEmpty);
}

// An event that none of these marks has is taken off: nothing but the answer.
bool InodeMarks::IsThere(const std::string& directory) const
{
    return group.Remove(FanotifyGroup::Scope::Inode, directory, FAN_DELETE_SELF) !=
           std::errc::no_such_file_or_directory;
}

void InodeMarks::RemoveReleased(bool alone)
{
    if (!std::exchange(anyReleased, false)) {
        return;
    }
    const bool all = std::all_of(marks.begin(), marks.end(), [](const auto& mark) { return mark.second.users == 0; });
    if (all && alone) {
        group.RemoveAll(FanotifyGroup::Scope::Inode);
        marks.clear();
    }
    std::erase_if(marks, [this](const auto& mark) { return mark.second.users == 0 && Remove(mark.second); });
}

// False: descriptors ran out. One that cannot be reached in another way goes with its inode.
bool InodeMarks::Remove(const Mark& mark) const
{
    const std::string& directory = anchors.at(mark.fsid);
    const SDK::FileDescriptor anchor =
        SDK::Limits::Opened([&] { return open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    if (!anchor) {
        return !SDK::Limits::HasRunOut({errno, std::generic_category()});
    }
    std::error_code error;
    if (const SDK::FileDescriptor marked = mark.handle.Open(anchor.Get(), O_PATH, error)) {
        static_cast<void>(group.Remove(marked.Get(), mark.events));
    }
    return !SDK::Limits::HasRunOut(error);
}

}  // namespace Engine
