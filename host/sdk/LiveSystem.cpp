// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/LiveSystem.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "host/sdk/CgroupPath.h"
#include "host/sdk/Directory.h"
#include "host/sdk/FileDescriptor.h"
#include "host/sdk/ProcText.h"
#include "host/sdk/TraceTime.h"
#include "sdk/FileUtils.h"

namespace SDK {

namespace {

constexpr long maxStatBytes = 4096;
constexpr long maxStatusBytes = 64L * 1024;
constexpr long maxCgroupBytes = 256L * 1024;  // a path of PATH_MAX bytes in each of a few dozen hierarchies
constexpr long maxCommandLineBytes = 4096;
constexpr std::size_t maxThreads = 65536;  // of one process that are listed
constexpr std::int64_t nanosecondsPerSecond = 1000000000;
constexpr std::array<const char*, 6> namespaceKinds{"ipc", "mnt", "net", "pid", "user", "uts"};

std::optional<std::string> LinkTarget(const std::string& path)
{
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) {
        return std::nullopt;
    }
    return std::string(target.data(), static_cast<std::size_t>(length));
}

// The entries of a directory whose names are numbers above 0.
std::vector<int> NumbersIn(const std::string& path, std::size_t most)
{
    std::vector<int> numbers;
    Directory directory{path};
    while (directory && numbers.size() < most) {
        const dirent* entry = directory.Next();
        if (entry == nullptr) {
            break;
        }
        if (const std::optional<int> number = ProcText::Number(entry->d_name); number && *number > 0) {
            numbers.push_back(*number);
        }
    }
    return numbers;
}

std::chrono::nanoseconds Now(clockid_t clock)
{
    timespec now = {};
    ::clock_gettime(clock, &now);
    return std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec};
}

// Where control groups of version 2 are mounted: alone, or beside those of version 1. Invalid when they are nowhere.
FileDescriptor OpenCgroups()
{
    for (const char* path : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
        FileDescriptor cgroups{::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        struct statfs kind = {};
        if (cgroups && ::fstatfs(cgroups.Get(), &kind) == 0 && kind.f_type == CGROUP2_SUPER_MAGIC) {
            return cgroups;
        }
    }
    return {};
}

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

std::shared_ptr<const Engine::ContainerInfo> LiveSystem::ContainerRecord(const std::string& id)
{
    const std::shared_lock lock(resolverMutex);
    return resolver == nullptr ? nullptr : resolver->Record(id);
}

int LiveSystem::ContainerOf(int pid, std::string& id)
{
    {
        const std::shared_lock lock(resolverMutex);
        if (resolver != nullptr) {
            return resolver->ContainerOf(pid, id);
        }
    }
    std::string cgroups;
    if (FileUtils::ReadFile(PathOf(pid, "cgroup"), cgroups, maxCgroupBytes) != 0) {
        return -1;
    }
    id = CgroupPath::ContainerIdOfFile(cgroups);
    return 0;
}

std::optional<std::vector<Cgroup>> LiveSystem::Cgroups(int tid)
{
    std::string cgroups;
    if (FileUtils::ReadFile(PathOf(tid, "cgroup"), cgroups, maxCgroupBytes) != 0) {
        return std::nullopt;
    }
    return CgroupPath::Groups(cgroups);
}

// A control group's file handle is its id (kernfs_encode_fh() in fs/kernfs/mount.c).
std::string LiveSystem::PathOfCgroup(std::uint64_t cgroup)
{
    constexpr int kernfsHandle = 0xfe;  // FILEID_KERNFS (include/linux/exportfs.h)
    alignas(file_handle) std::array<std::byte, sizeof(file_handle) + sizeof cgroup> space{};
    auto* handle = reinterpret_cast<file_handle*>(space.data());
    handle->handle_bytes = sizeof cgroup;
    handle->handle_type = kernfsHandle;
    std::memcpy(space.data() + offsetof(file_handle, f_handle), &cgroup, sizeof cgroup);
    const FileDescriptor cgroups = OpenCgroups();
    const FileDescriptor found{::open_by_handle_at(cgroups.Get(), handle, O_PATH | O_CLOEXEC)};
    const auto target = [this](const FileDescriptor& file) {
        return LinkTarget(procRoot + "/self/fd/" + std::to_string(file.Get())).value_or(std::string{});
    };
    const std::string root = target(cgroups);
    const std::string path = found ? target(found) : std::string{};
    return path.starts_with(root) ? path.substr(root.size()) : path;
}

std::optional<LiveSystem::File> LiveSystem::FileAt(const std::string& path)
{
    struct stat found = {};
    return ::stat(path.c_str(), &found) == 0 ? std::optional{File{found.st_dev, found.st_ino}} : std::nullopt;
}

void LiveSystem::LookAtHost()
{
    hostRoot = FileAt(PathOf(1, "root"));
    hostRoot = hostRoot ? hostRoot : FileAt("/");
    hostMounts = FileAt(PathOf(1, "ns/mnt"));
    ownMounts = FileAt(PathOf(::getpid(), "ns/mnt"));
}

std::optional<bool> LiveSystem::HasHostRoot(int tid)
{
    std::call_once(hostOnce, [this] { LookAtHost(); });
    const auto own = hostRoot ? FileAt(PathOf(tid, "root")) : std::nullopt;
    return own ? std::optional{own == hostRoot} : std::nullopt;
}

std::optional<bool> LiveSystem::HasHostMounts(int tid)
{
    std::call_once(hostOnce, [this] { LookAtHost(); });
    const auto own = FileAt(PathOf(tid, "ns/mnt"));
    return own ? std::optional{own == hostMounts || own == ownMounts} : std::nullopt;
}

bool LiveSystem::RunSameFile(int tid, int other)
{
    const auto one = FileAt(PathOf(tid, "exe"));
    return one && one == FileAt(PathOf(other, "exe"));
}

// The file of the thread: that of the process sums up all its threads, of which an attacker can make many.
std::optional<SystemView::Stat> LiveSystem::StatOf(int tid)
{
    std::string text;
    if (FileUtils::ReadFile(PathOf(tid, ("task/" + std::to_string(tid) + "/stat").c_str()), text, maxStatBytes) != 0) {
        return std::nullopt;
    }
    const auto stat = ProcText::StatOf(text);
    if (!stat) {
        return std::nullopt;
    }
    const std::chrono::nanoseconds sinceBoot{stat->start * (nanosecondsPerSecond / ::sysconf(_SC_CLK_TCK))};
    return Stat{stat->parent, sinceBoot - (Now(CLOCK_BOOTTIME) - Now(CLOCK_MONOTONIC))};
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
    // What the event being delivered tells of the thread that made it holds also when that has ended.
    const DeliveredEvent* event = TraceTime::Event();
    if (const auto caller = event != nullptr ? event->MadeBy() : std::nullopt; caller && caller->thread == pid) {
        status.name = caller->name;
        status.ppid = caller->parent;
        return 0;
    }
    std::string text;
    if (FileUtils::ReadFile(PathOf(pid, "status"), text, maxStatusBytes) != 0) {
        return -1;
    }
    const auto name = ProcText::ValueOf(text, "Name");
    const auto parent = ProcText::ValueOf(text, "PPid");
    const auto ppid = parent ? ProcText::Number(*parent) : std::nullopt;
    if (!name || !ppid) {
        return -1;
    }
    status.name = ProcText::Comm(*name);
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
    std::vector<int> pids = NumbersIn(procRoot, static_cast<std::size_t>(-1));
    std::sort(pids.begin(), pids.end());
    return pids;
}

// The directory has a link for each thread and two of its own (proc_task_getattr() in fs/proc/base.c): most processes
// have one thread, and need no listing.
std::vector<int> LiveSystem::Threads(int pid)
{
    constexpr nlink_t linksOfOneThread = 3;
    const std::string directory = PathOf(pid, "task");
    struct stat status = {};
    if (::stat(directory.c_str(), &status) == 0 && status.st_nlink == linksOfOneThread) {
        return {pid};
    }
    return NumbersIn(directory, maxThreads);
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

// Another thread may have the id of one that has ended.
std::optional<ProcessDetails> LiveSystem::Describe(int tid)
{
    std::optional<ContainerResolver::Kept> kept;
    {
        const std::shared_lock lock(resolverMutex);
        kept = resolver != nullptr ? resolver->FindKept(tid) : std::nullopt;
    }
    std::optional<ProcessDetails> details = kept && kept->hasEnded ? std::nullopt : Read(tid);
    // What is told of now had started by then. /proc may have shown it a moment after it was last seen.
    const auto latestStart = std::max(kept ? std::optional{kept->seen} : std::nullopt, TraceTime::Current());
    if (details && latestStart && details->started > *latestStart) {
        details.reset();
    }
    if (!kept || kept->executed == nullptr) {
        return details;
    }
    const ProcessDetails& executed = *kept->executed;
    if (!details) {
        details = executed;
        if (executed.process != tid) {  // an ancestor's
            details->process = 0;
            details->started = {};
            details->parent = kept->parent;
        }
        return details;
    }
    if (!executed.arguments.empty()) {  // which a process can write over
        details->arguments = executed.arguments;
    }
    if (!executed.executable.empty()) {
        details->executable = executed.executable;
    }
    if (details->workingDirectory.empty()) {  // of a thread that is ending
        details->workingDirectory = executed.workingDirectory;
    }
    return details;
}

std::optional<ProcessDetails> LiveSystem::Read(int tid)
{
    std::string status;
    if (FileUtils::ReadFile(PathOf(tid, "status"), status, maxStatusBytes) != 0) {
        return std::nullopt;
    }
    // The first of several numbers.
    const auto number = [&status](std::string_view key) -> std::optional<unsigned int> {
        const std::string_view value = ProcText::ValueOf(status, key).value_or("");
        unsigned int first = 0;
        const bool isNumber = std::from_chars(value.data(), value.data() + value.size(), first).ec == std::errc{};
        return isNumber ? std::optional{first} : std::nullopt;
    };
    ProcessDetails details;
    details.process = static_cast<int>(number("Tgid").value_or(0));
    details.parent = static_cast<int>(number("PPid").value_or(0));
    details.uid = number("Uid");
    details.gid = number("Gid");
    details.capabilities = ProcText::ValueOf(status, "CapEff").value_or("");
    details.executable = LinkTarget(PathOf(tid, "exe")).value_or("");
    details.linkedExecutable = details.executable;
    details.workingDirectory = LinkTarget(PathOf(tid, "cwd")).value_or("");
    std::string text;
    if (FileUtils::ReadFile(PathOf(tid, "cmdline"), text, maxCommandLineBytes) == 0) {
        details.arguments = ProcText::Arguments(text);
    }
    constexpr long maxNumberBytes = 16;
    unsigned int loginUid = 0;
    if (FileUtils::ReadFile(PathOf(tid, "loginuid"), text, maxNumberBytes) == 0 &&
        std::from_chars(text.data(), text.data() + text.size(), loginUid).ec == std::errc{}) {
        details.loginUid = loginUid;
    }
    // Last: what has started by now is what was read.
    const auto stat = StatOf(tid);
    if (!stat) {
        return std::nullopt;
    }
    details.started = stat->started;
    return details;
}

void LiveSystem::SetContainerResolver(ContainerResolver* next)
{
    const std::unique_lock lock(resolverMutex);
    resolver = next;
}

}  // namespace SDK
