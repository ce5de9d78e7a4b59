// SPDX-License-Identifier: Apache-2.0
// Names of trace events: which ones may be asked for, what the kernel calls them, and which system calls they are of.
#pragma once

#include <string>
#include <string_view>

namespace Engine::EventName {

// A letter or underscore, then letters, digits and underscores. Names become parts of paths in tracefs, so nothing
// else is let through.
bool IsPlain(std::string_view name);

// The name under which tracefs has the event of a system call, where it differs from the system-call table: the kernel
// names these events after the function that serves the call (SYSCALL_DEFINE, fs/stat.c: newstat). "sys_enter_umount2"
// gives "sys_enter_umount". Empty when there is no other name.
std::string KernelAlias(std::string_view event);

// The numbers under which a system call enters the kernel.
struct SyscallNumbers {
    int native = -1;  // x86-64's
    int compat = -1;  // i386's, through int 0x80 and sysenter; -1: it has no such call
    int older = -1;   // i386's call before that, which x86-64 never had: readdir(2), recorded as getdents
    int x32 = -1;     // x32's, without its bit 30
};

// `event`: as subscribers name it ("sys_enter_unshare"). All are -1 when that is no system call's entry.
SyscallNumbers NumbersOfEntry(const std::string& event);

}  // namespace Engine::EventName
