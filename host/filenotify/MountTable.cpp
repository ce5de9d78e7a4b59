// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/MountTable.h"

#include <charconv>
#include <optional>

#include "host/filenotify/WatchEntry.h"

namespace Engine {

namespace {

std::string_view NextField(std::string_view& line)
{
    const std::string_view field = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(line.size(), field.size() + 1));
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

// "36 35 98:0 /root /mountpoint rw,noatime master:1 - ext3 /dev/root rw": the optional fields end at the lone dash.
std::optional<MountInfo> ParseLine(std::string_view line)
{
    MountInfo mount;
    NextField(line);
    NextField(line);
    const std::string_view device = NextField(line);
    NextField(line);
    mount.mountPoint = Unescaped(NextField(line));
    const std::size_t dash = line.find(" - ");
    if (dash == std::string_view::npos || !mount.mountPoint.starts_with('/') ||
        std::from_chars(device.data(), device.data() + device.size(), mount.majorDevice).ec != std::errc{}) {
        return std::nullopt;
    }
    line.remove_prefix(dash + 3);
    mount.fileSystem = NextField(line);
    return mount;
}

}  // namespace

std::vector<MountInfo> ParseMountInfo(std::string_view text)
{
    std::vector<MountInfo> mounts;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (auto mount = ParseLine(line)) {
            mounts.push_back(std::move(*mount));
        }
    }
    return mounts;
}

std::vector<std::string> DataMountsBelow(const std::vector<MountInfo>& mounts, std::string_view top)
{
    std::vector<std::string> below;
    for (const MountInfo& mount : mounts) {
        const bool holdsData = mount.majorDevice != 0 || mount.fileSystem == "btrfs" || mount.fileSystem == "zfs";
        if (holdsData && mount.mountPoint != top && LiesWithin(mount.mountPoint, top)) {
            below.push_back(mount.mountPoint);
        }
    }
    return below;
}

}  // namespace Engine
