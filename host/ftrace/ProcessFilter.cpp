// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/ProcessFilter.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

#include "host/ftrace/SyscallProbeLayout.h"
#include "host/sdk/Limits.h"
#include "sdk/FileUtils.h"

// Generated from the compiled program; its variables are of the types above.
#include "SyscallProbe.skel.h"

namespace Engine {

namespace {

// PID_MAX_LIMIT (include/linux/threads.h); where the setting cannot be read.
constexpr std::size_t mostProcesses = std::size_t{1} << 22;

std::size_t Elements(std::size_t processes)
{
    return (processes + CE_PROCESSES_PER_ELEMENT - 1) / CE_PROCESSES_PER_ELEMENT;
}

SDK::FileDescriptor PidFd(int process)
{
    return SDK::Limits::Opened([process] { return static_cast<int>(::syscall(SYS_pidfd_open, process, 0)); });
}

}  // namespace

void ProcessFilter::Unmap::operator()(std::uint16_t* memory) const
{
    ::munmap(memory, bytes);
}

std::size_t ProcessFilter::Limit()
{
    std::string text;
    SDK::FileUtils::ReadFile("/proc/sys/kernel/pid_max", text, 32);
    const std::size_t setting = std::strtoul(text.c_str(), nullptr, 10);
    return setting == 0 ? mostProcesses : std::min(setting + 1, mostProcesses);
}

void ProcessFilter::Size(SyscallProbeProgram& program, std::size_t limit)
{
    bpf_map__set_max_entries(program.maps.processes, static_cast<unsigned int>(Elements(limit)));
}

ProcessFilter::ProcessFilter(SyscallProbeProgram& program, std::size_t limit) : program(program), limit(limit)
{
    const std::size_t bytes = Elements(limit) * sizeof(CeProcesses);
    void* memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, bpf_map__fd(program.maps.processes), 0);
    if (memory == MAP_FAILED) {
        throw std::system_error{errno, std::generic_category(), "cannot map the table of processes"};
    }
    states = {static_cast<std::uint16_t*>(memory), Unmap{bytes}};
}

std::uint16_t* ProcessFilter::StateOf(int process) const
{
    return process > 0 && static_cast<std::size_t>(process) < limit ? states.get() + process : nullptr;
}

bool ProcessFilter::IsExcluded(int process) const
{
    std::uint16_t* const state = StateOf(process);
    return state != nullptr && (std::atomic_ref<std::uint16_t>(*state).load() & 1) != 0;
}

std::optional<SyscallFilter::Ticket> ProcessFilter::TicketOf(int process) const
{
    std::uint16_t* const state = StateOf(process);
    const Ticket ticket = state == nullptr ? 1 : std::atomic_ref<std::uint16_t>(*state).load();
    return (ticket & 1) != 0 ? std::nullopt : std::optional{ticket};
}

void ProcessFilter::Exclude(int process, Ticket ticket)
{
    if (std::uint16_t* const state = StateOf(process); state != nullptr) {
        std::atomic_ref<std::uint16_t>(*state).compare_exchange_strong(ticket, 1);
    }
}

void ProcessFilter::IncludeAll()
{
    std::fill_n(states.get(), limit, std::uint16_t{0});
}

ProcessIdentity ProcessFilter::IdentityOf(int process) const
{
    const SDK::FileDescriptor pidfd = PidFd(process);
    const int key = pidfd.Get();
    CeTask kept{};
    bpf_map_lookup_elem(bpf_map__fd(program.maps.tasks), &key, &kept);  // there may be nothing
    return {kept.identity, kept.isSetUp != 0};
}

void ProcessFilter::FollowExit(int process)
{
    const SDK::FileDescriptor pidfd = PidFd(process);
    const int key = pidfd.Get();
    const std::uint32_t isFollowed = 1;
    bpf_map_update_elem(bpf_map__fd(program.maps.followed), &key, &isFollowed, BPF_ANY);  // it may have ended
}

std::uint32_t ProcessFilter::GiveIdentity(int process, std::uint32_t number)
{
    const int tasks = bpf_map__fd(program.maps.tasks);
    const SDK::FileDescriptor pidfd = PidFd(process);
    const int key = pidfd.Get();
    CeTask kept{};
    bpf_map_lookup_elem(tasks, &key, &kept);  // there may be nothing yet
    if (kept.identity != 0) {
        return kept.identity;
    }
    const auto next = [this] {
        return std::atomic_ref<unsigned int>(program.bss->tables.identities).fetch_add(1) + 1;
    };
    kept.identity = number == 0 ? next() : number;
    kept.isTold = 1;
    return bpf_map_update_elem(tasks, &key, &kept, BPF_ANY) == 0 ? kept.identity : 0;
}

}  // namespace Engine
