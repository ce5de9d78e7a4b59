// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <memory>
#include <string>

#include "host/sdk/FileDescriptor.h"
#include "host/sdk/Limits.h"

namespace SDK {

// The entries of a directory. One thread at a time.
class Directory {
public:
    // Invalid, with errno, if it cannot be opened. A symbolic link at the path's end is not followed.
    explicit Directory(const std::string& path)
        : Directory(
              Limits::Opened([&path] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }))
    {
    }

    // Takes a descriptor that was opened for reading.
    explicit Directory(FileDescriptor opened) : stream(opened ? ::fdopendir(opened.Get()) : nullptr)
    {
        if (stream != nullptr) {
            static_cast<void>(opened.Release());  // the stream's now
        }
    }

    explicit operator bool() const { return stream != nullptr; }

    // For the calls that take a directory and a name. Valid as long as this is.
    int Descriptor() const { return ::dirfd(stream.get()); }

    // The next entry, "." and ".." included, until the next call; null at the end. Not for one that is invalid.
    const dirent* Next() { return ::readdir(stream.get()); }

private:
    struct Close {
        void operator()(DIR* directory) const { ::closedir(directory); }
    };

    std::unique_ptr<DIR, Close> stream;
};

}  // namespace SDK
