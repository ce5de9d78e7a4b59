// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchPlace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

#include <cstring>
#include <filesystem>

namespace Engine {

namespace {

// The mount id that is never reused, since Linux 6.8; glibc 2.36 does not name it. Older kernels ignore the bit and
// give the plain id.
constexpr unsigned int uniqueMountId = 0x4000U;

bool Look(const std::string& path, struct statx& found)
{
    constexpr unsigned int wanted = STATX_TYPE | STATX_INO | STATX_MNT_ID | uniqueMountId;
    return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, wanted, &found) == 0;
}

std::string Resolved(const std::filesystem::path& path, bool follow)
{
    std::error_code error;
    auto resolved = follow ? std::filesystem::weakly_canonical(path, error)
                           : std::filesystem::weakly_canonical(path.parent_path(), error) / path.filename();
    return error ? path.lexically_normal().string() : resolved.string();
}

std::uint64_t FileSystemId(const std::string& directory)
{
    struct statfs status {};
    std::uint64_t fsid = 0;
    if (statfs(directory.c_str(), &status) == 0) {
        static_assert(sizeof(status.f_fsid) == sizeof(fsid));
        std::memcpy(&fsid, &status.f_fsid, sizeof(fsid));
    }
    return fsid;
}

}  // namespace

WatchPlace FindPlace(const std::string& path, bool follow)
{
    WatchPlace place;
    place.path = Resolved(path, follow);
    struct statx found {};
    if (Look(place.path, found)) {
        place.device = makedev(found.stx_dev_major, found.stx_dev_minor);
        place.inode = found.stx_ino;
    }
    std::filesystem::path directory{place.path};
    while (!Look(directory.string(), found) || !S_ISDIR(found.stx_mode)) {
        if (!directory.has_relative_path()) {
            return place;
        }
        directory = directory.parent_path();
    }
    place.directory = directory.string();
    place.fsid = FileSystemId(place.directory);
    place.mount = found.stx_mnt_id;
    return place;
}

}  // namespace Engine
