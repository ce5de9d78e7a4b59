// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TracefsInstance.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

#include "host/ftrace/TracefsCalls.h"
#include "sdk/FileUtils.h"

namespace Engine {
namespace {

[[noreturn]] void Fail(const std::string& what, int error)
{
    throw std::system_error{error, std::generic_category(), what};
}

struct FreeDeleter {
    void operator()(char* text) const { std::free(text); }
};
using LibraryText = std::unique_ptr<char, FreeDeleter>;

std::string CommOf(std::string_view pid)
{
    std::string comm;
    SDK::FileUtils::ReadFile("/proc/" + std::string{pid} + "/comm", comm, 32);
    return comm;
}

// An agent's instance, of this process or of one that has gone.
bool IsLeftover(std::string_view instance)
{
    constexpr std::string_view prefix = TracefsInstance::namePrefix;
    if (!instance.starts_with(prefix)) {
        return false;
    }
    const std::string_view pid = instance.substr(prefix.size());
    return !pid.empty() && pid.find_first_not_of("0123456789") == std::string_view::npos &&
           (pid == std::to_string(::getpid()) || CommOf(pid) != CommOf("self"));
}

}  // namespace

std::string TracefsInstance::OwnName()
{
    return namePrefix + std::to_string(::getpid());
}

std::size_t TracefsInstance::RemoveLeftovers()
{
    if (CeTracefsDirectory() == nullptr) {
        return 0;
    }
    std::vector<std::string> names;  // not removed while the library walks through them
    CeTracefsWalk(
        [](const char* name, void* context) {
            static_cast<std::vector<std::string>*>(context)->emplace_back(name);
            return 0;
        },
        &names);
    return static_cast<std::size_t>(std::count_if(names.begin(), names.end(), [](const std::string& name) {
        return IsLeftover(name) && CeTracefsRemove(name.c_str()) == 0;
    }));
}

std::size_t TracefsInstance::DefaultBufferKb(std::size_t cpus, bool withSystemCalls)
{
    constexpr std::size_t perCpuKb = 8192;
    constexpr std::size_t totalKb = 256UL * 1024;
    constexpr std::size_t perCpuKbWithoutCalls = 1024;
    const std::size_t bound = totalKb / std::max<std::size_t>(cpus, 1);
    return std::min(withSystemCalls ? perCpuKb : perCpuKbWithoutCalls, bound);
}

TracefsInstance::TracefsInstance(const std::string& name, std::size_t bufferKb) : name(name)
{
    if (CeTracefsDirectory() == nullptr) {
        Fail(
            "no tracefs: run as root on a kernel with tracing, or mount it (mount -t tracefs tracefs "
            "/sys/kernel/tracing)",
            errno);
    }
    handle = CeTracefsCreate(name.c_str());
    if (handle == nullptr) {
        Fail("cannot make the trace instance " + name + ": run as root, with /sys/kernel/tracing writable", errno);
    }
    try {
        Configure(bufferKb);
    } catch (...) {
        freeBuffer.Reset();
        CeTracefsRelease(handle);
        CeTracefsRemove(name.c_str());
        throw;
    }
}

TracefsInstance::~TracefsInstance()
{
    StopEvents();
    freeBuffer.Reset();
    CeTracefsRelease(handle);
    CeTracefsRemove(name.c_str());
}

// Settings and their meaning: Documentation/trace/ftrace.rst of the kernel.
void TracefsInstance::Configure(std::size_t bufferKb)
{
    // Event times are compared with clock_gettime(CLOCK_MONOTONIC).
    Write("trace_clock", "mono");
    Write("buffer_size_kb", std::to_string(bufferKb));
    // When the buffer is full, the oldest records are lost. The kernel then says in the pages at which place of the
    // stream records are missing, and what is read is recent: a flood cannot keep the events of what it covers out.
    Write("options/overwrite", "1");
    // Otherwise the kernel wakes the reader when half of the buffer is full, not at the first event.
    Write("buffer_percent", "0");
    // The kernel stops recording and frees the buffer when the last descriptor of free_buffer is closed, as it is
    // however this process ends.
    Write("options/disable_on_free", "1");
    freeBuffer.Reset(CeTracefsOpen(handle, "free_buffer", O_WRONLY));
    if (!freeBuffer) {
        Fail("cannot open free_buffer of the trace instance " + name, errno);
    }
}

void TracefsInstance::Write(const char* file, const std::string& text) const
{
    if (CeTracefsWrite(handle, file, text.c_str()) < 0) {
        Fail("cannot write " + text + " to " + file + " of the trace instance " + name, errno);
    }
}

std::vector<int> TracefsInstance::Cpus() const
{
    std::vector<int> cpus;
    const std::string directory = std::string{CeTracefsDirectory()} + "/instances/" + name + "/per_cpu";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator{directory, error}) {
        const std::string file = entry.path().filename();
        int cpu = 0;
        if (file.starts_with("cpu") &&
            std::from_chars(file.data() + 3, file.data() + file.size(), cpu).ec == std::errc{}) {
            cpus.push_back(cpu);
        }
    }
    std::sort(cpus.begin(), cpus.end());
    return cpus;
}

SDK::FileDescriptor TracefsInstance::OpenCpuFile(int cpu, const char* file, int flags) const
{
    const std::string path = "per_cpu/cpu" + std::to_string(cpu) + "/" + file;
    return SDK::FileDescriptor{CeTracefsOpen(handle, path.c_str(), flags)};
}

bool TracefsInstance::SetEvent(const std::string& system, const std::string& event, bool recorded) const
{
    return CeTracefsWriteEvent(handle, system.c_str(), event.c_str(), "enable", recorded ? "1" : "0") >= 0;
}

bool TracefsInstance::SetFilter(const std::string& system, const std::string& event, const std::string& filter) const
{
    return CeTracefsWriteEvent(handle, system.c_str(), event.c_str(), "filter", filter.c_str()) >= 0;
}

void TracefsInstance::StopEvents() const
{
    CeTracefsWrite(handle, "events/enable", "0");
}

std::optional<std::string> TracefsInstance::Format(const std::string& system, const std::string& event) const
{
    const LibraryText text{CeTracefsReadEvent(handle, system.c_str(), event.c_str(), "format")};
    return text == nullptr ? std::nullopt : std::optional<std::string>{text.get()};
}

std::size_t TracefsInstance::PageBytes() const
{
    constexpr std::size_t kib = 1024;
    // The file came with the setting; before, a sub-buffer was a page.
    const LibraryText text{CeTracefsRead(handle, "buffer_subbuf_size_kb")};
    const std::size_t kb = text == nullptr ? 0 : std::strtoul(text.get(), nullptr, 10);
    return kb != 0 ? kb * kib : static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace Engine
