// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TracefsInstance.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string_view>
#include <system_error>

#include "host/ftrace/TracefsCalls.h"
#include "sdk/FileUtils.h"

namespace Engine {
namespace {

constexpr std::string_view eventsFolder = "events/";
constexpr std::size_t maxShown = 64;    // characters of a changed setting
constexpr std::size_t maxStopped = 64;  // events in one go: each takes a moment

std::string FolderOf(const std::string& system, const std::string& event)
{
    return std::string{eventsFolder} + system + '/' + event + '/';
}

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
    settings["trace_clock"].written = "mono";
    for (const char* file :
         {"trace_clock", "buffer_size_kb", "options/overwrite", "buffer_percent", "options/disable_on_free",
          "tracing_on", "tracing_cpumask", "current_tracer", "set_event_pid", "set_event_notrace_pid"}) {
        if (const auto shown = Read(file)) {  // an older kernel may lack it
            Setting& setting = settings[file];
            setting = {setting.written.empty() ? *shown : setting.written, *shown};
        }
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

bool TracefsInstance::SetEvent(const std::string& system, const std::string& event, bool recorded)
{
    const std::lock_guard lock(mutex);
    const std::string folder = FolderOf(system, event);
    const std::string enable = folder + "enable";
    if (CeTracefsWrite(handle, enable.c_str(), recorded ? "1" : "0") < 0) {
        return false;
    }
    if (recorded) {
        events.insert(system + ':' + event);
        settings[enable] = {"1", "1"};
        settings.try_emplace(folder + "filter", Setting{"0", "none"});
    } else {
        events.erase(system + ':' + event);
        settings.erase(enable);
        settings.erase(folder + "filter");
    }
    return true;
}

bool TracefsInstance::SetFilter(const std::string& system, const std::string& event, const std::string& filter)
{
    const std::lock_guard lock(mutex);
    const std::string file = FolderOf(system, event) + "filter";
    if (CeTracefsWrite(handle, file.c_str(), filter.c_str()) < 0) {
        return false;
    }
    settings[file] = {filter, Read(file).value_or(filter)};
    return true;
}

void TracefsInstance::StopEvents()
{
    const std::lock_guard lock(mutex);
    CeTracefsWrite(handle, "events/enable", "0");
    std::erase_if(settings, [](const auto& setting) { return setting.first.starts_with(eventsFolder); });
    events.clear();
}

std::vector<std::string> TracefsInstance::Repair()
{
    const std::lock_guard lock(mutex);
    std::vector<std::string> found;
    for (const auto& [file, setting] : settings) {
        RepairSetting(file, setting, found);
    }
    StopUnasked(found);
    return found;
}

void TracefsInstance::RepairSetting(const std::string& file, const Setting& setting,
                                    std::vector<std::string>& found) const
{
    const std::optional<std::string> shown = Read(file);
    if (shown == setting.shown) {
        return;
    }
    if (shown && shown->ends_with('*')) {  // "0*", "1*": a trigger can switch it on and off
        RemoveTriggers(file.substr(0, file.rfind('/')));
    }
    const bool isBack =
        CeTracefsWrite(handle, file.c_str(), setting.written.c_str()) >= 0 && Read(file) == setting.shown;
    found.push_back(file + (shown ? " was \"" + shown->substr(0, maxShown) + "\"" : " could not be read") +
                    (isBack ? ", put back" : ", cannot be put back"));
}

void TracefsInstance::RemoveTriggers(const std::string& event) const
{
    const std::string file = event + "/trigger";
    std::istringstream triggers(Read(file).value_or(""));
    for (std::string line; std::getline(triggers, line);) {
        // "traceoff:unlimited": the number is not part of what is removed.
        if (!line.starts_with('#') && CeTracefsWrite(handle, file.c_str(), ('!' + line).c_str()) < 0) {
            CeTracefsWrite(handle, file.c_str(), ('!' + line.substr(0, line.rfind(':'))).c_str());
        }
    }
}

// Events that are on unasked fill the buffer.
void TracefsInstance::StopUnasked(std::vector<std::string>& found) const
{
    std::istringstream lines(Read("set_event").value_or(""));
    std::size_t count = 0;
    std::string last;
    for (std::string event; count < maxStopped && std::getline(lines, event);) {
        const std::size_t colon = event.find(':');
        if (colon != std::string::npos && !events.contains(event)) {
            CeTracefsWrite(handle, (FolderOf(event.substr(0, colon), event.substr(colon + 1)) + "enable").c_str(), "0");
            last = event;
            ++count;
        }
    }
    if (count != 0) {
        found.push_back(std::to_string(count) + " events were on unasked (" + last + "), put back");
    }
}

// Without the newline at the end. The library's own reading takes an empty file for an error.
std::optional<std::string> TracefsInstance::Read(const std::string& file) const
{
    const SDK::FileDescriptor opened{CeTracefsOpen(handle, file.c_str(), O_RDONLY)};
    std::string shown;
    std::array<char, 4096> part{};
    ssize_t count = opened ? 0 : -1;
    while (opened && (count = ::read(opened.Get(), part.data(), part.size())) > 0) {
        shown.append(part.data(), static_cast<std::size_t>(count));
    }
    shown.erase(shown.find_last_not_of('\n') + 1);
    return count < 0 ? std::nullopt : std::optional{shown};
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
