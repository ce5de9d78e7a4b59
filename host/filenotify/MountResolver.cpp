// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/MountResolver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "host/sdk/Limits.h"

namespace Engine {

namespace {

std::error_code Error(int number)
{
    return std::error_code{number, std::generic_category()};
}

SDK::FileDescriptor OpenDirectory(const std::string& path)
{
    return SDK::Limits::Opened([&path] { return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
}

SDK::FileDescriptor OpenHandle(int mount, const FileHandle& directory, std::error_code& error)
{
    alignas(file_handle) std::array<std::byte, sizeof(file_handle) + MAX_HANDLE_SZ> buffer{};
    auto* handle = reinterpret_cast<file_handle*>(buffer.data());
    handle->handle_bytes = static_cast<unsigned int>(directory.bytes.size());
    handle->handle_type = directory.type;
    std::memcpy(buffer.data() + sizeof(file_handle), directory.bytes.data(), directory.bytes.size());
    // O_PATH: looks without opening, so neither a device wakes nor an event of our own is made.
    SDK::FileDescriptor opened =
        SDK::Limits::Opened([=] { return open_by_handle_at(mount, handle, O_PATH | O_CLOEXEC); });
    error = opened ? std::error_code{} : Error(errno);
    return opened;
}

std::string PathOfDescriptor(int directory, std::error_code& error)
{
    std::array<char, 32> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", directory);
    std::array<char, PATH_MAX> text{};
    const ssize_t size = readlink(link.data(), text.data(), text.size());
    if (size < 0) {
        error = Error(errno);
        return {};
    }
    const std::string_view path{text.data(), static_cast<std::size_t>(size)};
    struct stat status {};
    if (path.ends_with(" (deleted)") && fstat(directory, &status) == 0 && status.st_nlink == 0) {
        error = Error(ESTALE);
    } else if (path == "/" && !std::filesystem::equivalent(link.data(), "/", error)) {
        // For a directory that the mount does not show the kernel gives "/" (prepend_path() in fs/d_path.c,
        // "Escaped?").
        error = Error(EXDEV);
    }
    return error ? std::string{} : std::string{path};
}

}  // namespace

int MountResolver::Anchor(const std::string& directory, std::error_code& error)
{
    const auto known = anchors.find(directory);
    if (known != anchors.end()) {
        return known->second.Get();
    }
    // The descriptor must be a real one: open_by_handle_at(2) refuses O_PATH here.
    SDK::FileDescriptor opened = OpenDirectory(directory);
    // What was watched may just have been deleted; what happened in it before is still to be told.
    for (std::filesystem::path up{directory}; !opened && errno == ENOENT && up.has_relative_path();) {
        up = up.parent_path();
        opened = OpenDirectory(up.string());
    }
    if (!opened) {
        error = Error(errno);
        return -1;
    }
    return anchors.emplace(directory, std::move(opened)).first->second.Get();
}

const std::string& MountResolver::PathOf(const std::string& anchor, const FileHandle& handle, std::error_code& error)
{
    key.assign(anchor);
    key.append(reinterpret_cast<const char*>(&handle.type), sizeof handle.type);
    key.append(reinterpret_cast<const char*>(handle.bytes.data()), handle.bytes.size());
    auto known = answers.find(key);
    if (known == answers.end()) {
        known = answers.emplace(key, Ask(anchor, handle)).first;
    }
    error = known->second.error;
    return known->second.path;
}

MountResolver::Answer MountResolver::Ask(const std::string& anchor, const FileHandle& handle)
{
    Answer answer;
    if (const int mount = Anchor(anchor, answer.error); mount >= 0) {
        if (const SDK::FileDescriptor directory = OpenHandle(mount, handle, answer.error)) {
            answer.path = PathOfDescriptor(directory.Get(), answer.error);
        }
    }
    return answer;
}

}  // namespace Engine
