// SPDX-License-Identifier: Apache-2.0
// How much the registry of containers holds, for what tells the operator.
#pragma once

#include <cstddef>

namespace Engine {

// Found by a dynamic cast from the task "container_collect_task". Any thread.
class ContainerStatus {
public:
    struct Sizes {
        std::size_t threads = 0;     // in the table, the dead of the last seconds included
        std::size_t containers = 0;  // whose names and images are known, those that have just gone included
    };
    virtual Sizes Count() const = 0;

protected:
    ~ContainerStatus() = default;
};

}  // namespace Engine
