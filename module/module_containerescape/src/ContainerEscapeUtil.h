// SPDX-License-Identifier: Apache-2.0
// What the policy parser and the detectors share: system-call names, the entries of a policy document, the path prefix
// test, the module's logger. All of it constant or pure: any thread, no errors beyond the stated results.
#pragma once

#include <Poco/Logger.h>

#include <set>
#include <string>

namespace Engine {

// The kinds of namespaces that are compared, as SDK::NamespaceUtils names them.
inline const std::set<std::string> namespaceKinds{"ipc", "mnt", "net", "pid", "user", "uts"};

inline constexpr char fileNotifyEvent[] = "filenotify";
inline constexpr char fileWatchEvent[] = "filewatch";

class ContainerEscapeUtil {
public:
    // The x86-64 number of a system call; -1 for any other name, also for one that only i386 has ("waitpid").
    static int GetSyscallNumber(const std::string& name);

    // Whether a policy may list this system call: x86-64 or i386 has it.
    static bool SyscallChecker(const std::string& name);

    // The name of a system call. `arch`: the audit architecture (linux/audit.h, AUDIT_ARCH_X86_64, AUDIT_ARCH_I386)
    // as a hexadecimal text, with or without "0x". Empty for another architecture or an unknown number.
    static std::string NameOf(int number, const std::string& arch);

    // Splits a policy's path entry: a path, which may be followed by "*/*" and one to four of the permission letters
    // r, w, x, a. Without the separator `perm` stays as it is. False, with nothing assigned, for bad letters.
    static bool GetPathAndPerm(const std::string& entry, std::string& path, std::string& perm);

    // Whether a path entry is well formed.
    static bool IsPathEntry(const std::string& entry);

    // Whether it is, and its path exists on the host now.
    static bool PathChecker(const std::string& entry);

    // Whether `path` lies below `dir`. A directory without a slash at its end does not lie below itself; one with it
    // does: StartsWith("/a", "/a") is false, StartsWith("/a/", "/a/") is true.
    static bool StartsWith(const std::string& path, const std::string& dir);

    // The module's logger, looked up at the first call. Owned by the logging library.
    static Poco::Logger* GetLoggerPtr();
};

// The vDSO image that the kernel mapped into this process (vdso(7)); null when it mapped none.
const void* GetVdso();

// The address of the dynamic symbol `name` in an ELF64 file image in memory, found through its section headers; null
// when there is none. `image` is trusted: its offsets are followed without bounds, as there is no size to check with.
const void* GetDynSym(const void* image, const char* name);

}  // namespace Engine
