// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/LiveSystem.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "host/sdk/CgroupPath.h"
#include "sdk/FileUtils.h"

namespace SDK {

namespace {

constexpr long maxStatusBytes = 64L * 1024;
constexpr long maxCgroupBytes = 256L * 1024;  // a path of PATH_MAX bytes in each of a few dozen hierarchies
constexpr long maxCommandLineBytes = 4096;
constexpr std::size_t maxCommBytes = 15;  // TASK_COMM_LEN in include/linux/sched.h, less the terminator
constexpr std::array<const char*, 6> namespaceKinds{"ipc", "mnt", "net", "pid", "user", "uts"};

// The text after "KEY:" and its blanks, up to the line's end.
std::optional<std::string_view> ValueOf(std::string_view text, std::string_view key)
{
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (line.substr(0, key.size()) == key && line.substr(key.size(), 1) == ":") {
            line.remove_prefix(key.size() + 1);
            line.remove_prefix(std::min(line.size(), line.find_first_not_of(" \t")));
            return line;
        }
    }
    return std::nullopt;
}

std::optional<int> NumberIn(std::string_view text)
{
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

// The kernel writes a newline in a name as "\n" and a backslash as "\\" (proc_task_name() in fs/proc/array.c), and for
// its own workers more than the name (wq_worker_comm()), which is cut here to what trace events carry.
std::string CommIn(std::string_view escaped)
{
    std::string comm;
    for (std::size_t i = 0; i < escaped.size() && comm.size() < maxCommBytes; ++i) {
        if (escaped[i] == '\\' && i + 1 < escaped.size()) {
            ++i;
            comm += escaped[i] == 'n' ? '\n' : escaped[i];
        } else {
            comm += escaped[i];
        }
    }
    return comm;
}

std::optional<std::string> LinkTarget(const std::string& path)
{
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) {
        return std::nullopt;
    }
    return std::string(target.data(), static_cast<std::size_t>(length));
}

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

}  // namespace

LiveSystem::LiveSystem(std::string procRoot) : procRoot(std::move(procRoot))
{
}

std::string LiveSystem::PathOf(long pid, const char* file) const
{
    return procRoot + '/' + std::to_string(pid) + '/' + file;
}

// As of the clock's last tick, at most 10 ms ago, like the times of files: a tenth of what the exact time costs
// (do_time() in lib/vdso/gettimeofday.c).
std::int64_t LiveSystem::WallClockSeconds()
{
    return std::time(nullptr);
}

bool LiveSystem::MayBeEntering(int pid)
{
    const std::shared_lock lock(resolverMutex);
    return resolver != nullptr && resolver->MayBeEntering(pid);
}

int LiveSystem::ContainerOf(int pid, std::string& id)
{
    {
        const std::shared_lock lock(resolverMutex);
        if (resolver != nullptr) {
            return resolver->ContainerOf(pid, id);
        }
    }
    std::string groups;
    if (FileUtils::ReadFile(PathOf(pid, "cgroup"), groups, maxCgroupBytes) != 0) {
        return -1;
    }
    id = CgroupPath::ContainerIdOfFile(groups);
    return 0;
}

int LiveSystem::ExecutablePath(unsigned int pid, std::string& path)
{
    std::optional<std::string> target = LinkTarget(PathOf(pid, "exe"));
    if (!target) {
        return -1;
    }
    path = std::move(*target);
    return 0;
}

int LiveSystem::Status(int pid, ProcessUtils::procStatus& status)
{
    std::string text;
    if (FileUtils::ReadFile(PathOf(pid, "status"), text, maxStatusBytes) != 0) {
        return -1;
    }
    const auto name = ValueOf(text, "Name");
    const auto parent = ValueOf(text, "PPid");
    const auto ppid = parent ? NumberIn(*parent) : std::nullopt;
    if (!name || !ppid) {
        return -1;
    }
    status.name = CommIn(*name);
    status.ppid = *ppid;
    return 0;
}

int LiveSystem::Namespaces(int pid, std::map<std::string, std::string>& namespaces)
{
    namespaces.clear();
    for (const char* const kind : namespaceKinds) {
        std::optional<std::string> target = LinkTarget(PathOf(pid, "ns/") + kind);
        if (!target) {
            namespaces.clear();
            return -1;
        }
        namespaces.emplace(kind, std::move(*target));
    }
    return 0;
}

std::vector<int> LiveSystem::Processes()
{
    std::vector<int> pids;
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(procRoot.c_str()));
    if (directory == nullptr) {
        return pids;
    }
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::optional<int> pid = NumberIn(entry->d_name);
        if (pid && *pid > 0) {
            pids.push_back(*pid);
        }
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

int LiveSystem::CommandLine(int pid, std::string& commandLine)
{
    std::string arguments;
    if (FileUtils::ReadFile(PathOf(pid, "cmdline"), arguments, maxCommandLineBytes) != 0) {
        return -1;
    }
    // Each argument ends in a zero byte; a process that rewrote them may have padded with more (proc(5)).
    arguments.erase(arguments.find_last_not_of('\0') + 1);
    std::replace(arguments.begin(), arguments.end(), '\0', ' ');
    commandLine = std::move(arguments);
    return 0;
}

void LiveSystem::SetContainerResolver(ContainerResolver* next)
{
    const std::unique_lock lock(resolverMutex);
    resolver = next;
}

}  // namespace SDK
