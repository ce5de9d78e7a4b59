// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <utility>

namespace SDK {

// Owns a descriptor and closes it. Open descriptors with O_CLOEXEC or its like.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        Reset(std::exchange(other.fd, -1));
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { Reset(); }

    int Get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }

    // Hands it over: it is the caller's to close.
    int Release() { return std::exchange(fd, -1); }

    void Reset(int next = -1)
    {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = next;
    }

private:
    int fd = -1;
};

}  // namespace SDK
