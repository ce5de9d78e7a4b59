// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "host/sdk/FileDescriptor.h"

namespace Engine {

// Tells when a socket appears under a path, without asking for it again and again (inotify(7)). Where its directory is
// missing or cannot be watched, it tells nothing. Thread: one at a time.
class SocketWatch {
public:
    explicit SocketWatch(const std::string& path);

    // Readable when something appeared in the directory; -1: nothing is watched.
    int Fd() const { return inotify.Get(); }

    // Whether that was what is waited for. Takes all that is to be told.
    bool HasAppeared();

private:
    SDK::FileDescriptor inotify;
    std::string name;
};

}  // namespace Engine
