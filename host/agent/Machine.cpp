// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Machine.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/capability.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "host/agent/Console.h"
#include "host/sdk/FileDescriptor.h"
#include "host/sdk/SystemView.h"
#include "sdk/FileUtils.h"
#include "sdk/StrUtils.h"

namespace Agent {

namespace {

// Where tracefs is mounted (Documentation/trace/ftrace.rst): its own place, and the one inside debugfs.
constexpr std::array<const char*, 2> tracefsPlaces{"/sys/kernel/tracing", "/sys/kernel/debug/tracing"};

constexpr std::array<const char*, 6> moduleNames{"report",     "ftrace",          "container",
                                                 "filenotify", "process_collect", "containerescape"};
constexpr char namespaceCheckModule[] = "namespace_check";

// Unlike access(2), which takes the capabilities of a user other than root for none.
bool IsAllowed(const std::string& path, int mode)
{
    return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

// The kernel's events name processes by their ids in the first namespace, whose number is fixed (PROC_PID_INIT_INO in
// include/linux/proc_ns.h).
bool SeesHostProcessIds()
{
    constexpr char first[] = "pid:[4026531836]";
    std::array<char, sizeof first> own{};
    const ssize_t length = ::readlink("/proc/self/ns/pid", own.data(), own.size());
    return length > 0 && std::string(own.data(), static_cast<std::size_t>(length)) == first;
}

// Those that nothing works without, with a space before each.
std::string MissingCapabilities()
{
    constexpr std::array<std::pair<int, const char*>, 3> needed{{{CAP_SYS_ADMIN, " CAP_SYS_ADMIN"},
                                                                 {CAP_SYS_PTRACE, " CAP_SYS_PTRACE"},
                                                                 {CAP_DAC_READ_SEARCH, " CAP_DAC_READ_SEARCH"}}};
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    ::syscall(SYS_capget, &header, sets.data());
    std::string missing;
    for (const auto& [number, name] : needed) {  // all below 32
        missing += (sets[0].effective & (1U << static_cast<unsigned int>(number))) != 0 ? "" : name;
    }
    return missing;
}

// Against reading the kernel, which takes tracing along (kernel_lockdown(7)).
bool IsLockedDown()
{
    std::string modes;
    SDK::FileUtils::ReadFile("/sys/kernel/security/lockdown", modes, 1024);
    return modes.find("[confidentiality]") != std::string::npos;
}

std::string Tracefs()
{
    for (const char* place : tracefsPlaces) {
        if (IsAllowed(std::string(place) + "/instances", W_OK)) {
            return place;
        }
    }
    return {};
}

std::string DefaultModulesDir()
{
    std::array<char, PATH_MAX> executable{};
    const ssize_t length = ::readlink("/proc/self/exe", executable.data(), executable.size());
    const std::string path(executable.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    return path.substr(0, path.rfind('/') + 1) + "../" CE_LIBRARY_DIR;
}

}  // namespace

std::string WhyNotHere()
{
    if (const std::string missing = MissingCapabilities(); !missing.empty()) {
        return "lacks" + missing + ": start it as root or as a system service";
    }
    if (!SeesHostProcessIds()) {
        return "is in a process id namespace of its own and would take processes for others: start it on the host, or "
               "its container with the host's process ids";
    }
    if (IsLockedDown()) {
        return "finds the kernel locked down, so that no process may trace it: start the kernel with "
               "lockdown=integrity or without lockdown";
    }
    if (Tracefs().empty()) {
        return "finds no tracefs: mount it with \"mount -t tracefs nodev /sys/kernel/tracing\", outside of a container";
    }
    if (CallEventsDir().empty()) {
        return "finds no system call trace events: run it on a kernel that has CONFIG_FTRACE_SYSCALLS";
    }
    return {};
}

std::string CallEventsDir()
{
    const std::string dir = Tracefs() + "/events/syscalls";
    return IsAllowed(dir, R_OK) ? dir : std::string{};
}

std::vector<std::string> ModulePaths(const Options& options)
{
    const std::string dir = options.modulesDir.empty() ? DefaultModulesDir() : options.modulesDir;
    std::vector<std::string> names(moduleNames.begin(), moduleNames.end());
    if (options.namespaceCheck) {
        names.emplace_back(namespaceCheckModule);
    }
    std::vector<std::string> paths;
    for (const std::string& name : names) {
        paths.push_back(SDK::StrUtils::Format("%s/lib%s_module.so", dir.c_str(), name.c_str()));
        if (!IsAllowed(paths.back(), R_OK)) {
            throw BadInput("module " + paths.back() + ": " + std::strerror(errno));
        }
    }
    return paths;
}

SDK::FileDescriptor CheckAlarmsFile(const std::string& path, std::vector<std::string>& warnings)
{
    SDK::FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600));
    // A named pipe without a reader (ENXIO, fifo(7)) may get one later.
    if (!file && errno == ELOOP) {
        throw BadInput("alarms file " + path + ": is a symbolic link, which is not followed");
    }
    if (!file && errno != ENXIO) {
        throw BadInput("alarms file " + path + ": " + std::strerror(errno));
    }
    struct stat status {};
    if (!file || ::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return {};
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        warnings.push_back("alarms file " + path + " may be changed by every user of this host");
    }
    if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        warnings.push_back("alarms file " + path + " is another agent's, too: each alarm may be there twice");
    }
    return file;
}

std::size_t CountContainers()
{
    SDK::SystemView& view = SDK::SystemView::Current();
    std::set<std::string> containers;
    for (const int pid : view.Processes()) {
        std::string id;
        if (view.ContainerOf(pid, id) == 0 && !id.empty()) {
            containers.insert(id);
        }
    }
    return containers.size();
}

}  // namespace Agent
