// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace SDK {

// A file under a path that others may have chosen, read as a whole.
struct RegularFile {
    std::string text;
    uid_t owner = 0;
    mode_t mode = 0;
    int errorNumber = 0;  // 0: read, or refused for what it is
    std::string error;    // why it was not read; empty: it was

    // What was opened is looked at, not what the path leads to, which may be elsewhere a moment later: a pipe or a
    // device could keep the reader waiting. Refuses what is no regular file, and more than `maxBytes`. `flags`: of
    // open(2), besides those for reading. Any thread.
    static RegularFile Read(const std::string& path, std::size_t maxBytes, int flags = 0);
};

}  // namespace SDK
