// SPDX-License-Identifier: Apache-2.0
// What the kernel keeps of a process that was put into control groups.
#pragma once

#include <cstdint>

namespace Engine {

struct ProcessIdentity {
    // A process of the host that moves another one gives it a new number, which is inherited at each fork; nothing that
    // the process does changes it. Numbers are not used again. 0: none, or not known.
    std::uint32_t number = 0;
    // It was put there by a process of the host and has executed nothing but the runtime since.
    bool isInSetUp = false;
};

}  // namespace Engine
