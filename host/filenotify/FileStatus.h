// SPDX-License-Identifier: Apache-2.0
// What file notifications are really had of.
#pragma once

#include <map>
#include <string>

namespace Engine {

class FileStatus {
public:
    // Each path that is to be watched, as it was asked for, with the reason why the kernel does not watch it; empty: it
    // does. Any thread.
    virtual std::map<std::string, std::string> Watches() const = 0;

protected:
    ~FileStatus() = default;
};

}  // namespace Engine
