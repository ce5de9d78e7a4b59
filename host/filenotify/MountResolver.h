// SPDX-License-Identifier: Apache-2.0
// Opens directory handles against the agent's own mounts and reads the paths back (open_by_handle_at(2) and
// /proc/self/fd): the path is the one at the moment of asking, so no rename can make it lie.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <system_error>
#include <unordered_map>

#include "host/filenotify/FanotifyEvents.h"
#include "host/sdk/FileDescriptor.h"

namespace Engine {

class MountResolver {
public:
    // The path of `handle` below the mount that the directory `anchor`, or its nearest ancestor, lies on. Empty with
    // ESTALE: no such directory any more; EXDEV: the mount does not show it; ENAMETOOLONG: longer than PATH_MAX;
    // EMFILE, ENFILE, ENOMEM: it could not be looked at. Opens `anchor` and keeps it open for the next call, until
    // Close. The answer is kept until Forget; the reference is good as long.
    const std::string& PathOf(const std::string& anchor, const FileHandle& handle, std::error_code& error);

    // To be called when events have been read. Those of one buffer happened before the first look at a directory, so
    // one look is as good for all of them as one for each.
    void Forget() { answers.clear(); }

    // Closes the anchors. To be called as soon as there is nothing to resolve: an open directory makes umount(2) of its
    // filesystem fail, and the agent must not stand in the host's way.
    void Close() { anchors.clear(); }

private:
    struct Answer {
        std::string path;
        std::error_code error;
    };

    Answer Ask(const std::string& anchor, const FileHandle& handle);
    int Anchor(const std::string& directory, std::error_code& error);

    std::map<std::string, SDK::FileDescriptor> anchors;
    std::unordered_map<std::string, Answer> answers;  // by anchor and handle
    std::string key;                                  // of the question, kept for its memory
};

}  // namespace Engine
