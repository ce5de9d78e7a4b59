// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/ProcessFilter.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <system_error>

#include "host/ftrace/Log.h"
#include "host/ftrace/SyscallProbeLayout.h"
#include "host/sdk/FileDescriptor.h"
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

constexpr std::size_t listedAtOnce = 1024;  // threads

// Behind `rest` bytes. 0 at the end, -1 when it fails.
ssize_t ReadSome(int fd, std::vector<CeListedThread>& buffer, std::size_t rest)
{
    ssize_t got = -1;
    do {
        got = ::read(fd, reinterpret_cast<char*>(buffer.data()) + rest, buffer.size() * sizeof buffer.front() - rest);
    } while (got < 0 && (errno == EINTR || errno == EAGAIN));
    return got;
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

std::vector<SyscallFilter::Listed> ProcessFilter::List(const Given& given)
{
    static_assert(mostExcept == CE_MOST_NOT_GIVEN);
    auto& notGiven = program.bss->tables.notGiven;
    std::fill(std::begin(notGiven), std::end(notGiven), 0);
    std::copy_n(given.except.begin(), std::min(given.except.size(), mostExcept), notGiven);
    const int numbers = bpf_map__fd(program.maps.given);
    std::vector<Listed> listed;
    auto next = given.numbers.begin();
    do {
        const auto first = next;
        for (int room = CE_MOST_GIVEN; room > 0 && next != given.numbers.end(); --room, ++next) {
            if (bpf_map_update_elem(numbers, &next->first, &next->second, BPF_ANY) != 0) {
                TraceLog::Warning("the processes of a control group get no identity: %s", std::strerror(errno));
            }
        }
        listed = ListThreads();
        std::for_each(first, next, [&](const auto& each) { bpf_map_delete_elem(numbers, &each.first); });
    } while (next != given.numbers.end() && !listed.empty());
    return listed;
}

std::vector<SyscallFilter::Listed> ProcessFilter::ListThreads()
{
    const SDK::FileDescriptor all{bpf_iter_create(bpf_link__fd(program.links.ListThreads))};
    std::vector<CeListedThread> buffer(listedAtOnce);
    std::vector<Listed> listed;
    std::size_t rest = 0;  // bytes of a thread's that were read without its end
    ssize_t got = -1;
    while (all.Get() >= 0 && (got = ReadSome(all.Get(), buffer, rest)) > 0) {
        const std::size_t bytes = rest + static_cast<std::size_t>(got);
        const std::size_t count = bytes / sizeof(CeListedThread);
        for (std::size_t i = 0; i < count; ++i) {
            const CeListedThread& each = buffer[i];
            const std::chrono::nanoseconds started{static_cast<std::int64_t>(each.started)};
            const ProcessIdentity identity{each.identity, each.isSetUp != 0};
            listed.push_back({each.thread, each.process, each.parent, each.groups, started, identity});
        }
        rest = bytes % sizeof(CeListedThread);
        buffer.front() = buffer[std::min(count, buffer.size() - 1)];
    }
    if (got < 0) {
        TraceLog::Warning("the kernel does not list its threads, /proc will do: %s", std::strerror(errno));
        listed.clear();
    }
    return listed;
}

std::uint32_t ProcessFilter::NewIdentity()
{
    return std::atomic_ref<unsigned int>(program.bss->tables.identities).fetch_add(1) + 1;
}

}  // namespace Engine
