// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace SDK {

// What a detection task merged instead of sending it. A host finds it by a dynamic cast from the task. Any thread.
class MergedAlarms {
public:
    // By the class of the alarms (event_classid), since the task was made.
    virtual std::map<std::string, std::uint64_t> Merged() const = 0;

protected:
    ~MergedAlarms() = default;
};

}  // namespace SDK
