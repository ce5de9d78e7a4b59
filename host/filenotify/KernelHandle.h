// SPDX-License-Identifier: Apache-2.0
// The handle of a file or directory, as the kernel's events name it (name_to_handle_at(2)). A value. Any thread.
#pragma once

#include <fcntl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <system_error>

#include "host/filenotify/FanotifyEvents.h"
#include "host/sdk/FileDescriptor.h"

namespace Engine {

// A number for a handle, and for another one but by a chance of one in 2^64.
std::uint64_t KeyOf(const FileHandle& handle);

class KernelHandle {
public:
    KernelHandle() = default;

    // A copy; without bytes if it is longer than a handle can be.
    explicit KernelHandle(const FileHandle& handle);

    // Asks for that of `path`, below the directory `at` (or AT_FDCWD); a symbolic link at its end is not followed.
    std::error_code Read(int at, const char* path);

    // A view into this.
    FileHandle View(std::uint64_t fsid) const;

    // Opens the directory that it stands for, if the filesystem opens handles; `anchor`: any directory of that
    // filesystem, not opened with O_PATH. Not open: it is gone, is no directory, the filesystem does not, or
    // descriptors or memory ran out; `error` tells.
    SDK::FileDescriptor OpenDirectory(int anchor, std::error_code& error) const
    {
        return Open(anchor, O_RDONLY | O_DIRECTORY, error);
    }

    // The same for whatever it stands for, with the flags of open(2).
    SDK::FileDescriptor Open(int anchor, int flags, std::error_code& error) const;

    // The mount through which it was read (statx(2), stx_mnt_id without STATX_MNT_ID_UNIQUE); 0: it was not.
    int MountId() const { return mount; }

private:
    alignas(file_handle) std::array<std::byte, sizeof(file_handle) + MAX_HANDLE_SZ> buffer{};
    int mount = 0;
};

}  // namespace Engine
