// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "host/filenotify/FanotifyEvents.h"

namespace Engine {

// From a directory handle to paths as the host names them.
class DirectoryLookup {
public:
    enum class Answer : std::uint8_t {
        Done,     // every path was offered; a filesystem that nobody watches gives none
        Gone,     // the directory does not exist any more, or its path is longer than the kernel tells
        Failing,  // descriptors or memory ran out: the access is lost
    };

    // Offers the directory's paths, one for each watched mount that shows it, until `take` returns true.
    virtual Answer PathsOf(const DirectoryHandle& directory, const std::function<bool(const std::string&)>& take) = 0;

    // A directory was made, moved or deleted in `parent`. Called for the whole host's, so it must be quick.
    virtual void DirectoryChanged(const DirectoryHandle& parent) = 0;

    virtual ~DirectoryLookup() = default;
};

}  // namespace Engine
