// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/SyscallProbe.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <numeric>
#include <string>
#include <system_error>
#include <utility>

#include "host/ftrace/EventName.h"
#include "host/ftrace/LifeFormats.h"
#include "host/ftrace/Log.h"
#include "host/ftrace/SyscallProbeLayout.h"

// Generated from the compiled program; its variables are of the types above.
#include "SyscallProbe.skel.h"

namespace Engine {
namespace {

constexpr std::size_t kib = 1024;
constexpr std::size_t bytesForOneWaiting = 16 * kib;  // about eighty times what a record takes

constexpr unsigned int windowMs = 100;  // at least

[[noreturn]] void Fail(const std::string& what, int error)
{
    throw std::system_error{std::abs(error), std::generic_category(), what};
}

// What the library says of a failure are hundreds of lines, the verifier's: shown only at the level debug.
[[gnu::format(printf, 2, 0)]] int Print(libbpf_print_level level, const char* format, va_list arguments)
{
    if (level == LIBBPF_DEBUG) {
        return 0;
    }
    std::array<char, 512> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    TraceLog::Debug("%s", text.data());
    return 0;
}

// The kernel's tick, which the coarse clocks have, is cheaper to ask for than its time.
unsigned int WindowShift()
{
    timespec tick{};
    ::clock_getres(CLOCK_MONOTONIC_COARSE, &tick);
    const unsigned int ticks = windowMs * 1000000U / static_cast<unsigned int>(std::max(tick.tv_nsec, 1000L));
    return static_cast<unsigned int>(std::bit_width(std::max(ticks, 1U) - 1));
}

// Whether a call by x32's table is served: its number of getpid(2) is x86-64's with a bit on top.
bool HasX32()
{
    constexpr long x32Bit = 0x40000000;
    return ::syscall(SYS_getpid | x32Bit) > 0;
}

// What process 1 has; where that may not be looked at, the agent itself.
struct stat OfHost(const std::string& file)
{
    struct stat found = {};
    if (::stat(("/proc/1/" + file).c_str(), &found) != 0 && ::stat(("/proc/self/" + file).c_str(), &found) != 0) {
        Fail("cannot look at /proc/self/" + file, errno);
    }
    return found;
}

}  // namespace

void SyscallProbe::ProgramDeleter::operator()(SyscallProbeProgram* loaded) const
{
    SyscallProbeProgram::destroy(loaded);
}

std::size_t SyscallProbe::DefaultRingKb(std::size_t cpus)
{
    constexpr std::size_t perCpuKb = 1024;
    constexpr std::size_t totalKb = 16 * kib;
    return std::bit_floor(std::min(perCpuKb, totalKb / std::max<std::size_t>(cpus, 1)));
}

SyscallProbe::SyscallProbe(std::size_t ringKb, Where where, const Budgets& budgets)
    : processLimit(ProcessFilter::Limit()),
      ringBytes(std::bit_ceil(std::max(ringKb * kib, static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)))))
{
    const int cpus = libbpf_num_possible_cpus();
    if (cpus <= 0) {
        Fail("cannot count the CPUs", cpus);
    }
    perCpu.resize(static_cast<std::size_t>(cpus));
    Load(where, budgets);
    // The kernel's types, which were read for each try, are some megabytes that the library has freed.
    ::malloc_trim(0);
    filter.emplace(*program, processLimit);
    MakeRings();
    if (const int error = SyscallProbeProgram::attach(program.get()); error != 0) {
        Fail("cannot attach the BPF program", error);
    }
}

SyscallProbe::~SyscallProbe() = default;

void SyscallProbe::Load(Where where, const Budgets& budgets)
{
    libbpf_set_print(Print);
    if (where != Where::Enter && TryLoad(true, budgets) == 0) {
        functions = std::make_unique<CallFunctions>();
        const bpf_program* copied = program->progs.OnCallFunction;
        functions->Use(bpf_program__insns(copied), bpf_program__insn_cnt(copied));
        return;
    }
    if (const int error = where == Where::Functions ? -ENOTSUP : TryLoad(false, budgets); error != 0) {
        Fail(where == Where::Functions ? "the kernel takes no BPF program at its functions"
                                       : "the kernel does not take the BPF program",
             error);
    }
}

int SyscallProbe::TryLoad(bool withFunctions, const Budgets& budgets)
{
    program.reset(SyscallProbeProgram::open());
    if (program == nullptr) {
        Fail("cannot read the BPF program", errno);
    }
    const struct stat mounts = OfHost("ns/mnt");
    const struct stat root = OfHost("root");
    CeProbeSettings& settings = program->rodata->settings;
    settings.processLimit = static_cast<unsigned int>(processLimit);
    settings.windowShift = WindowShift();
    settings.guaranteed = budgets.guaranteed;
    settings.threadBudget = budgets.thread;
    settings.groupBudget = budgets.group;
    settings.lifeBudget = budgets.life;
    settings.programBudget = budgets.programs;
    settings.ringBytes = static_cast<unsigned int>(ringBytes);
    settings.mostWaiting = static_cast<unsigned int>(ringBytes / bytesForOneWaiting);
    settings.hostMounts = static_cast<unsigned int>(mounts.st_ino);
    // MKDEV() of include/linux/kdev_t.h.
    settings.hostDevice = major(root.st_dev) << 20U | minor(root.st_dev);
    settings.hostRoot = root.st_ino;
    settings.hasX32 = HasX32() ? 1 : 0;
    ProcessFilter::Size(*program, processLimit);
    bpf_map__set_max_entries(program->maps.rings, static_cast<unsigned int>(perCpu.size()));
    // Attached as calls need them.
    bpf_program__set_autoattach(program->progs.OnSystemCall, false);
    bpf_program__set_autoattach(program->progs.OnCallFunction, false);
    bpf_program__set_autoload(program->progs.OnCallFunction, withFunctions);
    return SyscallProbeProgram::load(program.get());
}

void SyscallProbe::MakeRings()
{
    for (unsigned int cpu = 0; cpu < perCpu.size(); ++cpu) {
        SDK::FileDescriptor ring{
            bpf_map_create(BPF_MAP_TYPE_RINGBUF, "ring", 0, 0, static_cast<unsigned int>(ringBytes), nullptr)};
        const int fd = ring.Get();
        if (fd < 0) {
            Fail("cannot make a ring of " + std::to_string(ringBytes / kib) + " KiB", errno);
        }
        streams.push_back(std::make_unique<RingStream>(std::move(ring), ringBytes));
        if (bpf_map_update_elem(bpf_map__fd(program->maps.rings), &cpu, &fd, BPF_ANY) != 0) {
            Fail("cannot give a CPU its ring", errno);
        }
    }
}

std::vector<std::unique_ptr<RingStream>> SyscallProbe::TakeStreams()
{
    return std::move(streams);
}

std::string SyscallProbe::Format(const std::string& system, const std::string& event, const std::string& kernelFormat)
{
    const auto life = LifeFormats::EventOf(system, event);
    return life ? LifeFormats::Format(*life, kernelFormat) : kernelFormat;
}

bool SyscallProbe::Watch(const KnownEvent& event)
{
    if (const auto life = LifeFormats::EventOf(event.kind.System(), event.kernelEvent)) {
        program->bss->tables.life[*life] = event.id;
        return true;
    }
    const EventName::SyscallNumbers numbers = EventName::NumbersOfEntry(event.kind.Event());
    if (!event.IsSyscall() || numbers.native < 0 || numbers.native >= CE_CALLS) {
        return false;
    }
    const bool hasFunctions =
        functions != nullptr && functions->Attach(EventName::FunctionsOf(event.kind.Event(), event.kernelEvent),
                                                  static_cast<std::uint64_t>(numbers.native));
    if (!hasFunctions && !AttachToEnter()) {
        return false;
    }
    const auto kind = static_cast<unsigned short>(kinds.size());
    const CeWatchedCall call{event.id, static_cast<unsigned short>(numbers.native),
                             kinds.try_emplace(event.id, kind).first->second,
                             static_cast<unsigned short>(hasFunctions ? 1 : 0)};
    auto& watched = program->bss->tables.watched;
    const auto set = [&](int number, CeCallTable table) {
        if (number >= 0 && number < CE_CALLS) {
            watched[number][table] = call;
        }
    };
    set(numbers.native, CE_NATIVE);
    set(numbers.x32, CE_X32);
    for (const int number : numbers.compat) {
        set(number, CE_COMPAT);
    }
    (hasFunctions ? functionEvents : enterEvents).insert(event.id);
    TellPlace();
    return true;
}

bool SyscallProbe::AttachToEnter()
{
    bpf_link*& link = program->links.OnSystemCall;
    if (link == nullptr) {
        link = bpf_program__attach(program->progs.OnSystemCall);
    }
    return link != nullptr;
}

void SyscallProbe::TellPlace()
{
    if (enterEvents.empty()) {
        place = functionEvents.empty() ? "nowhere" : "functions";
    } else {
        place = functionEvents.empty() ? "sys_enter" : "functions and sys_enter";
    }
}

bool SyscallProbe::Unwatch(const KnownEvent& event)
{
    if (const auto life = LifeFormats::EventOf(event.kind.System(), event.kernelEvent)) {
        program->bss->tables.life[*life] = 0;
        return true;
    }
    bool was = false;
    for (auto& entries : program->bss->tables.watched) {
        for (CeWatchedCall& call : entries) {
            was |= call.event == event.id;
            if (call.event == event.id && call.hasFunctions != 0) {
                functions->Detach(call.number);
            }
            call = call.event == event.id ? CeWatchedCall{} : call;
        }
    }
    enterEvents.erase(event.id);
    functionEvents.erase(event.id);
    TellPlace();
    return was;
}

void SyscallProbe::UnwatchAll()
{
    std::memset(program->bss->tables.watched, 0, sizeof program->bss->tables.watched);
    std::memset(program->bss->tables.life, 0, sizeof program->bss->tables.life);
    enterEvents.clear();
    functionEvents.clear();
    TellPlace();
}

void SyscallProbe::ExcludeThread(int tid)
{
    program->bss->tables.ownThread = tid;
}

std::uint64_t SyscallProbe::Sum(unsigned int count)
{
    const bool isRead = bpf_map_lookup_elem(bpf_map__fd(program->maps.counts), &count, perCpu.data()) == 0;
    return isRead ? std::accumulate(perCpu.begin(), perCpu.end(), std::uint64_t{0}) : 0;
}

std::uint64_t SyscallProbe::LifeMisses() const
{
    std::uint64_t misses = 0;
    bpf_program* each = nullptr;
    bpf_object__for_each_program(each, program->obj)
    {
        if (each != program->progs.OnSystemCall && each != program->progs.OnCallFunction) {
            misses += CallFunctions::MissesOf(bpf_program__fd(each));
        }
    }
    return misses;
}

SyscallLoss SyscallProbe::TakeLoss()
{
    const std::uint64_t misses = LifeMisses();
    if (misses != seenLifeMisses) {
        seenLifeMisses = misses;
        filter->IncludeAll();
    }
    std::uint64_t callMisses = CallFunctions::MissesOf(bpf_program__fd(program->progs.OnSystemCall));
    if (functions != nullptr) {
        functions->Purge(std::chrono::steady_clock::now());
        callMisses += functions->Misses();
    }
    if (enterEvents.empty()) {
        bpf_link__destroy(std::exchange(program->links.OnSystemCall, nullptr));
    }
    const SyscallLoss now{Sum(CE_DROPPED) + callMisses, Sum(CE_DROPPED_LIFE) + misses, Sum(CE_SHED), Sum(CE_SHED_LIFE)};
    const SyscallLoss fresh{now.dropped - seen.dropped, now.droppedLife - seen.droppedLife, now.shed - seen.shed,
                            now.shedLife - seen.shedLife};
    seen = now;
    return fresh;
}

}  // namespace Engine
