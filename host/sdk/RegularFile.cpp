// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "host/sdk/FileDescriptor.h"
#include "host/sdk/Limits.h"
#include "sdk/FileUtils.h"

namespace SDK {

RegularFile RegularFile::Read(const std::string& path, std::size_t maxBytes, int flags)
{
    flags |= O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    const FileDescriptor opened(Limits::Opened([&] { return ::open(path.c_str(), flags); }));
    RegularFile file;
    struct stat status {};
    const auto failed = [&file] {
        file.errorNumber = errno;
        file.error = std::strerror(errno);
        return file;
    };
    if (!opened || ::fstat(opened.Get(), &status) != 0) {
        return failed();
    }
    file.owner = status.st_uid;
    file.mode = status.st_mode;
    if (!S_ISREG(status.st_mode)) {
        file.error = "is not a regular file";
    } else if (FileUtils::ReadFile("/proc/self/fd/" + std::to_string(opened.Get()), file.text,
                                   static_cast<long>(maxBytes) + 1) != 0) {
        return failed();
    } else if (file.text.size() > maxBytes) {
        file.error = "is larger than " + std::to_string(maxBytes) + " bytes";
    }
    return file;
}

}  // namespace SDK
