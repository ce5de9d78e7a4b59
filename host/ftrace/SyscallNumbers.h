// SPDX-License-Identifier: Apache-2.0
// The numbers under which a system call enters the kernel.
#pragma once

#include <string>

namespace Engine {

struct SyscallNumbers {
    int native = -1;  // x86-64's
    int compat = -1;  // i386's, through int 0x80 and sysenter; -1: it has no such call

    // `event`: as subscribers name it ("sys_enter_unshare"). Both are -1 when that is no system call's entry.
    static SyscallNumbers OfEntry(const std::string& event);
};

}  // namespace Engine
