// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <set>
#include <string>
#include <vector>

#include "host/sdk/FileDescriptor.h"

namespace Engine {

// Tells when one of some sockets, or a directory on the way to it, appears, without asking for them again and again
// (inotify(7)). What cannot be watched tells nothing. Thread: one at a time.
class SocketWatch {
public:
    explicit SocketWatch(const std::vector<std::string>& paths);

    // Readable when something appeared in one of the directories; -1: nothing is watched.
    int Fd() const { return inotify.Get(); }

    // Whether that may have been what is waited for. Takes all that is to be told.
    bool HasAppeared();

private:
    void WatchDirectories();

    SDK::FileDescriptor inotify;
    std::set<std::string> directories;  // those that may come, too
    std::set<std::string> names;        // what may appear in them
};

}  // namespace Engine
