// SPDX-License-Identifier: Apache-2.0
// Names and numbers of Linux system calls in the two numberings that an x86-64 kernel serves. Constant data, part of
// the library's image: no start-up work, any thread.
//
// Source: the kernel's headers asm/unistd_64.h and asm/unistd_32.h of the machine that builds, up to userfaultfd.
// Numbers never change there. Leading underscores are dropped ("sysctl" for "_sysctl"). Obsolete calls keep their
// names. Excluded on purpose, so that nothing accepts them:
// - x86-64: seccomp (317), getrandom (318), bpf (321), execveat (322)
// - i386: renameat2 (353), seccomp (354), getrandom (355), bpf (357), execveat (358) and the direct socket calls
//   (359 to 373); 222, 223, 251 and 285 are unassigned.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace Engine {

struct SyscallEntry {
    int number;
    std::string_view name;
};

// One numbering in both directions. Look-ups take logarithmic time and do not allocate.
class SyscallTable {
public:
    // `byNumber` and `byName`: the same entries, each sorted ascending by what its name says. Not owned.
    constexpr SyscallTable(std::span<const SyscallEntry> byNumber, std::span<const SyscallEntry> byName)
        : byNumber(byNumber), byName(byName)
    {
    }

    // -1 for a name that is not in the table.
    int NumberOf(std::string_view name) const;

    // Empty for a number that is not in the table.
    std::string_view NameOf(int number) const;

    std::size_t Size() const { return byNumber.size(); }

private:
    std::span<const SyscallEntry> byNumber;
    std::span<const SyscallEntry> byName;
};

const SyscallTable& X8664SyscallTable();
const SyscallTable& I386SyscallTable();

}  // namespace Engine
