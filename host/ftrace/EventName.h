// SPDX-License-Identifier: Apache-2.0
// Names of trace events: which ones may be asked for, and what the kernel calls them.
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

}  // namespace Engine::EventName
