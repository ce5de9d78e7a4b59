// SPDX-License-Identifier: Apache-2.0
// Names of trace events: which ones may be asked for, what the kernel calls them, and which system calls they are of.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Engine::EventName {

// A letter or underscore, then letters, digits and underscores. Names become parts of paths in tracefs, so nothing
// else is let through.
bool IsPlain(std::string_view name);

// Whether it is a rule of the audit system (auditctl(8)) after the usual beginning, "sys_enter_always,exit -S ptrace".
// Such a rule names no event.
bool IsAuditRule(std::string_view event);

// The name under which tracefs has the event of a system call, where it differs from the system-call table: the kernel
// names these events after the function that serves the call (SYSCALL_DEFINE, fs/stat.c: newstat). "sys_enter_umount2"
// gives "sys_enter_umount". Empty when there is no other name.
std::string KernelAlias(std::string_view event);

// The numbers under which a system call enters the kernel.
struct SyscallNumbers {
    int native = -1;          // x86-64's
    int x32 = -1;             // x32's, without its bit 30
    std::vector<int> compat;  // i386's, through int 0x80 and sysenter, of all its calls that do the same
};

// `event`: as subscribers name it ("sys_enter_unshare"). Empty when that is no system call's entry.
SyscallNumbers NumbersOfEntry(const std::string& event);

// What the functions may be called that serve a system call, without the prefix that tells the entry (SYSCALL_DEFINE
// and COMPAT_SYSCALL_DEFINE; the tables in arch/x86/entry/syscalls name them). No kernel has all of them; none of them
// serves another call of x86-64. `kernelEvent`: as tracefs names it.
std::vector<std::string> FunctionsOf(const std::string& event, const std::string& kernelEvent);

}  // namespace Engine::EventName
