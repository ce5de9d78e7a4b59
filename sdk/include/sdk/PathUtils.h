// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace SDK {

class PathUtils {
public:
    // What follows the last slash; the whole path when there is none, empty when the path ends in one.
    static std::string GetFileNameFromPath(const std::string& path);
};

}  // namespace SDK
