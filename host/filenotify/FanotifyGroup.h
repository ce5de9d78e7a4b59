// SPDX-License-Identifier: Apache-2.0
// A fanotify group of the kinds used here: notifications only, with directory handle and name, and with the handle of
// the object itself where that is wanted.
//
// FAN_CLASS_NOTIF and nothing else: a permission class could make every process of the host wait for the agent.
// The queue keeps the kernel's bound (/proc/sys/fs/fanotify/max_queued_events, 16384 by default) and not
// FAN_UNLIMITED_QUEUE: a process in a container that writes fast enough would otherwise decide how much kernel memory
// the agent takes. What the bound costs is said: FAN_Q_OVERFLOW is counted and logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <system_error>

#include "host/sdk/FileDescriptor.h"

namespace Engine {

class FanotifyGroup {
public:
    enum class Scope : std::uint8_t { FileSystem, Inode };

    // A group that is not open; every call on it fails with EBADF.
    FanotifyGroup() = default;

    // Opens the group. EPERM without CAP_SYS_ADMIN, ENOSYS without fanotify, EINVAL before Linux 5.9 (no names).
    // `withObjects`: also tells which file an event is about; of those that are made, deleted or moved since Linux 5.17
    // (FAN_REPORT_TARGET_FID).
    std::error_code Open(bool withObjects = false);
    bool WithObjects() const { return withObjects; }

    // Whether events tell which file or directory was made, deleted or moved.
    bool WithTargets() const { return withTargets; }

    // Adds events to the mark of `path`, and makes it if there is none. `path` is not followed if it is a link.
    // ENODEV, EXDEV, EOPNOTSUPP: this filesystem cannot be marked in this scope (fanotify_mark(2)).
    std::error_code Add(Scope scope, const std::string& path, std::uint64_t events) const;

    // The same, in the scope of the inode, for what the descriptor is open for, one with O_PATH included.
    std::error_code Add(int descriptor, std::uint64_t events) const;
    std::error_code Remove(int descriptor, std::uint64_t events) const;

    // Takes events off the mark; with its last one it goes. ENOENT: there was no mark, or no such path.
    std::error_code Remove(Scope scope, const std::string& path, std::uint64_t events) const;

    // Removes all marks of that scope.
    void RemoveAll(Scope scope) const;

    // Reads what is queued, as much as fits. Returns the bytes read; 0 and no error: nothing is queued.
    std::size_t Read(std::span<std::byte> buffer, std::error_code& error) const;

    // For the waiter only; the group keeps it.
    int Descriptor() const { return group.Get(); }

private:
    std::error_code Mark(unsigned int flags, Scope scope, const char* path, std::uint64_t events) const;

    SDK::FileDescriptor group;
    bool withObjects = false;
    bool withTargets = false;
};

}  // namespace Engine
