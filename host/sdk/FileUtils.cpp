// SPDX-License-Identifier: Apache-2.0
#include "sdk/FileUtils.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/sdk/FileDescriptor.h"
#include "host/sdk/Limits.h"

namespace SDK {

namespace {

constexpr std::size_t firstRead = 4096;

// The size that fstat(2) gives is no help: it is 0 for most of /proc and may change meanwhile. Grow and read on.
int ReadAll(int fd, std::string& content, std::size_t limit)
{
    std::size_t used = 0;
    for (ssize_t got = 1; got > 0 && used < limit; used += static_cast<std::size_t>(got)) {
        content.resize(std::min(limit, std::max(firstRead, used * 2)));
        got = TEMP_FAILURE_RETRY(::read(fd, content.data() + used, content.size() - used));
        if (got < 0) {
            return -1;
        }
    }
    content.resize(used);
    return 0;
}

}  // namespace

int FileUtils::ReadFile(const std::string& path, std::string& content, long maxBytes)
{
    content.clear();
    if (maxBytes < 0) {
        errno = EINVAL;
        return -1;
    }
    FileDescriptor file =
        Limits::Opened([&path] { return TEMP_FAILURE_RETRY(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)); });
    if (!file) {
        return -1;
    }
    if (ReadAll(file.Get(), content, static_cast<std::size_t>(maxBytes)) != 0) {
        const int why = errno;
        content.clear();
        file.Reset();  // close(2) may change errno
        errno = why;
        return -1;
    }
    return 0;
}

}  // namespace SDK
