// SPDX-License-Identifier: Apache-2.0
// What the processes that may be in a container do, recorded by a BPF program: system calls, forks, execs, exits,
// moves.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/ftrace/CallFunctions.h"
#include "host/ftrace/EventCatalog.h"
#include "host/ftrace/ProcessFilter.h"
#include "host/ftrace/RingStream.h"

struct SyscallProbeProgram;

namespace Engine {

// What the kernel did not keep, in events.
struct SyscallLoss {
    // system calls: a ring was full, or their container had its part, or the program could not run
    std::uint64_t dropped = 0;
    std::uint64_t droppedLife = 0;  // forks, execs, exits and moves: likewise
    std::uint64_t shed = 0;         // system calls: their thread or container made too many
    std::uint64_t shedLife = 0;     // forks, execs and exits: likewise
};

// More than the trace events it excludes the host's processes in the kernel, sees calls through the 32-bit entry, and
// bounds what one process and one container may record. Its records are those of the trace events, those of
// processes' lives with fields of their own (LifeFormats).
// The programs and all memory of them go with this process, however it ends.
//
// Thread: one at a time. Needs CAP_BPF and CAP_PERFMON, or CAP_SYS_ADMIN, and the kernel's BTF (Linux 5.12 or later).
class SyscallProbe {
public:
    // How many calls of one kind, unless said otherwise, may be recorded in a window of 100 to 200 ms.
    struct Budgets {
        unsigned int guaranteed = 8;  // of each thread, while its container has not filled its part of the ring
        unsigned int thread = 512;    // of a thread, while its container has quota left; beyond detectors' limits
        // Of all threads of a container, on each CPU, at most 65535; what detection handles beside all else. As many
        // again may follow on a call of another kind by the same thread.
        unsigned int group = 4096;
        unsigned int life = 2048;   // forks and execs of a container, on each CPU
        unsigned int programs = 0;  // of these execs so many are recorded with what was executed (CeProgram)
    };

    // Where calls are recorded: at the functions that serve them, which costs other calls nothing, or at the event
    // sys_enter, which all calls pass. Best: at the functions as far as the kernel allows it and they are known, calls
    // of which they are not at sys_enter. Functions: likewise, but an error where the kernel allows none.
    enum class Where { Best, Functions, Enter };

    // Where nothing is set: KiB of each CPU's ring. All rings together take no more than 16 MiB of the kernel's memory,
    // which cannot be swapped out and counts in this process's resident memory.
    static std::size_t DefaultRingKb(std::size_t cpus);

    // `ringKb` is rounded up to a power of two of at least a page. Throws std::system_error, the text says why.
    explicit SyscallProbe(std::size_t ringKb, Where where = Where::Best) : SyscallProbe(ringKb, where, Budgets{}) {}
    SyscallProbe(std::size_t ringKb, Where where, const Budgets& budgets);
    SyscallProbe(const SyscallProbe&) = delete;
    SyscallProbe& operator=(const SyscallProbe&) = delete;
    ~SyscallProbe();

    // One for each CPU. Once.
    std::vector<std::unique_ptr<RingStream>> TakeStreams();

    // The format file by which its records of that event are to be read. `kernelFormat`: the kernel's, for its own.
    static std::string Format(const std::string& system, const std::string& event, const std::string& kernelFormat);

    // Starts the recording of a system call's entry, or of an event of processes' lives. False when the event is none,
    // or one that only the trace has.
    bool Watch(const KnownEvent& event);

    // False when it was not recorded here.
    bool Unwatch(const KnownEvent& event);
    void UnwatchAll();

    // The thread that reads, which is excluded.
    void ExcludeThread(int tid);

    // Good as long as this.
    SyscallFilter& Filter() { return *filter; }

    // Since the last call. Ends what calls have needed that are not watched any more.
    SyscallLoss TakeLoss();

    // Where the watched calls are recorded, in words. Any thread.
    const char* Place() const { return place; }

private:
    struct ProgramDeleter {
        void operator()(SyscallProbeProgram* loaded) const;
    };

    void Load(Where where, const Budgets& budgets);
    int TryLoad(bool withFunctions, const Budgets& budgets);
    bool AttachToEnter();
    void TellPlace();
    std::uint64_t LifeMisses() const;
    void MakeRings();
    std::uint64_t Sum(unsigned int count);

    std::unique_ptr<SyscallProbeProgram, ProgramDeleter> program;
    std::optional<ProcessFilter> filter;
    std::unique_ptr<CallFunctions> functions;  // null: the kernel takes no program there
    std::size_t processLimit;
    std::size_t ringBytes;  // of each
    std::vector<std::unique_ptr<RingStream>> streams;
    std::vector<std::uint64_t> perCpu;              // room for one counter of all CPUs
    std::map<std::uint16_t, unsigned short> kinds;  // CeWatchedCall::kind by event
    std::set<std::uint16_t> enterEvents;            // those that are recorded at sys_enter
    std::set<std::uint16_t> functionEvents;         // those that are recorded at functions
    SyscallLoss seen;
    std::uint64_t seenLifeMisses = 0;
    std::atomic<const char*> place{"nowhere"};
};

}  // namespace Engine
