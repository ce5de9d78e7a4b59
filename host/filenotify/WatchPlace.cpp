// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchPlace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
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

// Cuts the field, and the character that ends it, off the front of `text`.
std::string_view CutField(std::string_view& text, char end)
{
    const std::string_view field = text.substr(0, text.find(end));
    text.remove_prefix(std::min(text.size(), field.size() + 1));
    return field;
}

// A blank, tab, newline or backslash stands there as a backslash and three octal digits (show_mountinfo() in
// fs/proc_namespace.c).
std::string Unescaped(std::string_view text)
{
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned int value = 0;
        const char* digits = text.data() + i + 1;
        if (text[i] == '\\' && text.size() - i > 3 && std::from_chars(digits, digits + 3, value, 8).ptr == digits + 3) {
            plain += static_cast<char>(value);
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

}  // namespace

std::uint64_t FileSystemId(const std::string& path)
{
    struct statfs status {};
    std::uint64_t fsid = 0;
    if (statfs(path.c_str(), &status) == 0) {
        static_assert(sizeof(status.f_fsid) == sizeof(fsid));
        std::memcpy(&fsid, &status.f_fsid, sizeof(fsid));
    }
    return fsid;
}

WatchPlace FindPlace(const std::string& path)
{
    WatchPlace place;
    std::error_code error;
    place.path = std::filesystem::weakly_canonical(path, error).string();
    if (error) {
        place.path = std::filesystem::path{path}.lexically_normal().string();
    }
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

// "36 35 98:0 /root /mountpoint rw,noatime master:1 - ext3 /dev/root rw": the optional fields end at the lone dash.
std::vector<std::string> DataMounts(std::string_view mountInfo)
{
    std::vector<std::string> mounts;
    while (!mountInfo.empty()) {
        std::string_view line = CutField(mountInfo, '\n');
        CutField(line, ' ');
        CutField(line, ' ');
        const std::string_view device = CutField(line, ' ');
        CutField(line, ' ');
        const std::string_view mountPoint = CutField(line, ' ');
        line.remove_prefix(std::min(line.find(" - "), line.size()));
        const bool holdsData =
            !device.starts_with("0:") || line.starts_with(" - btrfs ") || line.starts_with(" - zfs ");
        if (!line.empty() && holdsData) {
            mounts.push_back(Unescaped(mountPoint));
        }
    }
    return mounts;
}

}  // namespace Engine
