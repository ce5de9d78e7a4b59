// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/FanotifyGroup.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace Engine {

namespace {

std::error_code LastError()
{
    return std::error_code{errno, std::generic_category()};
}

// The call takes no descriptor with O_PATH by itself (fanotify_find_path() in fs/notify/fanotify/fanotify_user.c).
std::array<char, 32> PathOfOpen(int descriptor)
{
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", descriptor);
    return path;
}

}  // namespace

std::error_code FanotifyGroup::Open(bool objects)
{
    unsigned int flags = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME;
    flags |= objects ? FAN_REPORT_FID | FAN_REPORT_TARGET_FID : 0U;
    int fd = fanotify_init(flags, O_RDONLY | O_CLOEXEC | O_LARGEFILE);
    const bool isOlder = fd < 0 && errno == EINVAL && objects;
    if (isOlder) {
        fd = fanotify_init(flags & ~FAN_REPORT_TARGET_FID, O_RDONLY | O_CLOEXEC | O_LARGEFILE);
    }
    if (fd < 0) {
        return LastError();
    }
    group.Reset(fd);
    withObjects = objects;
    withTargets = objects && !isOlder;
    return {};
}

std::error_code FanotifyGroup::Add(Scope scope, const std::string& path, std::uint64_t events) const
{
    return Mark(FAN_MARK_ADD | FAN_MARK_DONT_FOLLOW, scope, path.c_str(), events);
}

std::error_code FanotifyGroup::Remove(Scope scope, const std::string& path, std::uint64_t events) const
{
    return Mark(FAN_MARK_REMOVE | FAN_MARK_DONT_FOLLOW, scope, path.c_str(), events);
}

std::error_code FanotifyGroup::Add(int descriptor, std::uint64_t events) const
{
    return Mark(FAN_MARK_ADD, Scope::Inode, PathOfOpen(descriptor).data(), events);
}

std::error_code FanotifyGroup::Remove(int descriptor, std::uint64_t events) const
{
    return Mark(FAN_MARK_REMOVE, Scope::Inode, PathOfOpen(descriptor).data(), events);
}

void FanotifyGroup::RemoveAll(Scope scope) const
{
    // Fails only for flags or a descriptor that the kernel does not know; closing the group removes the rest.
    static_cast<void>(Mark(FAN_MARK_FLUSH, scope, nullptr, 0));
}

std::error_code FanotifyGroup::Mark(unsigned int flags, Scope scope, const char* path, std::uint64_t events) const
{
    const unsigned int where = scope == Scope::FileSystem ? FAN_MARK_FILESYSTEM : FAN_MARK_INODE;
    return fanotify_mark(group.Get(), flags | where, events, AT_FDCWD, path) == 0 ? std::error_code{} : LastError();
}

std::size_t FanotifyGroup::Read(std::span<std::byte> buffer, std::error_code& error) const
{
    ssize_t size = -1;
    do {
        size = ::read(group.Get(), buffer.data(), buffer.size());
    } while (size < 0 && errno == EINTR);
    error = size < 0 && errno != EAGAIN ? LastError() : std::error_code{};
    return size < 0 ? 0 : static_cast<std::size_t>(size);
}

}  // namespace Engine
