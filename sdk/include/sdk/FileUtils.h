// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace SDK {

class FileUtils {
public:
    // Reads at most `maxBytes` bytes of a file, also of one whose size the kernel gives as 0 (proc(5)). What follows
    // them is not read. 0: read; -1: it could not be opened or read, errno says why, `content` is then empty. Any
    // thread.
    static int ReadFile(const std::string& path, std::string& content, long maxBytes);
};

}  // namespace SDK
