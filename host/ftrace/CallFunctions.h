// SPDX-License-Identifier: Apache-2.0
// A BPF program at the entry of each kernel function that serves a watched system call: calls that are not watched run
// no code of it, where a program at the event sys_enter makes every call on the machine take the kernel's slow way.
#pragma once

#include <linux/bpf.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "host/sdk/FileDescriptor.h"

namespace Engine {

// Each function needs a program of its own (the kernel checks it against that function's type), all with the same
// instructions, and tells it by the link's cookie which call it is (bpf_get_attach_cookie(), Linux 6.0).
//
// A program that no call needs may be needed again at once, when a policy is read again: it stays until Purge. To end
// one, the kernel waits until no CPU can be at work in it: a tenth of a second, one program after another
// (unregister_ftrace_direct_multi() in kernel/trace/ftrace.c). So a thread of its own does that; and what is there at
// the end is left to the kernel, which ends it with this process.
// Errors: what a kernel does not have or refuses is false. Throws nothing but std::bad_alloc.
// Thread: one at a time.
class CallFunctions {
public:
    // How long a program stays that no call needs.
    static constexpr std::chrono::seconds linger{2};

    // Reads the names of the kernel's functions; there are none where its types are not to be had.
    CallFunctions();
    CallFunctions(const CallFunctions&) = delete;
    CallFunctions& operator=(const CallFunctions&) = delete;
    ~CallFunctions();

    // What the programs do. The memory is copied.
    void Use(const bpf_insn* instructions, std::size_t count) { program.assign(instructions, instructions + count); }

    // Attaches to all functions that may serve the call. False when not all entries are known to be served: then none
    // is attached. `names`: EventName::FunctionsOf. `cookie`: what the program gets.
    bool Attach(const std::vector<std::string>& names, std::uint64_t cookie);

    void Detach(std::uint64_t cookie);

    // Begins to end what has not been needed for long enough, unless it is still at that.
    void Purge(std::chrono::steady_clock::time_point now);

    // Calls for which a program was not run, see MissesOf; of all programs that there ever were.
    std::uint64_t Misses() const;

    // How often a program was not run because it was at work on that CPU already (bpf_trace_run() in
    // kernel/trace/bpf_trace.c, __bpf_prog_enter_recur() in kernel/bpf/trampoline.c). `program`: a descriptor.
    static std::uint64_t MissesOf(int program);

private:
    struct Entry {
        std::uint64_t cookie;
        SDK::FileDescriptor program;
        SDK::FileDescriptor link;
        std::chrono::steady_clock::time_point unused;  // since when; max: it is needed
    };

    std::vector<std::string> Serving(const std::vector<std::string>& names) const;
    bool AttachTo(const std::string& function, std::uint64_t cookie);

    std::map<std::string, unsigned int, std::less<>> functions;  // and their ids among the kernel's types
    bool servesI386 = false;                                     // through an entry of its own
    std::vector<bpf_insn> program;
    std::map<std::string, Entry, std::less<>> entries;  // by function
    std::uint64_t missesOfPurged = 0;
    std::atomic<bool> isClosing{false};
    std::jthread closer;
};

}  // namespace Engine
