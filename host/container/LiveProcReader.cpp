// SPDX-License-Identifier: Apache-2.0
#include "host/container/LiveProcReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include "host/sdk/CgroupPath.h"
#include "host/sdk/FileDescriptor.h"
#include "host/sdk/SystemView.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

constexpr long maxStatBytes = 4096;
constexpr std::int64_t nanosecondsPerSecond = 1000000000;
constexpr long maxCgroupBytes = 256L * 1024;  // a line for each hierarchy, each at most a path of PATH_MAX

std::string ProcPath(int tid, const char* file)
{
    return "/proc/" + std::to_string(tid) + file;
}

// Empty when the link cannot be read.
std::string ReadLink(const std::string& path)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    return length <= 0 ? std::string{} : std::string{target.data(), static_cast<std::size_t>(length)};
}

bool SameFile(const std::string& left, const std::string& right)
{
    struct stat a = {};
    struct stat b = {};
    return ::stat(left.c_str(), &a) == 0 && ::stat(right.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

std::chrono::nanoseconds Now(clockid_t clock)
{
    timespec now = {};
    ::clock_gettime(clock, &now);
    return std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec};
}

// Where control groups of version 2 are mounted: alone, or beside those of version 1. Invalid when they are nowhere.
SDK::FileDescriptor OpenGroups()
{
    for (const char* path : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
        SDK::FileDescriptor groups{::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        struct statfs kind = {};
        if (groups && ::fstatfs(groups.Get(), &kind) == 0 && kind.f_type == CGROUP2_SUPER_MAGIC) {
            return groups;
        }
    }
    return {};
}

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

std::vector<int> NumbersIn(const std::string& path, std::size_t most)
{
    std::vector<int> numbers;
    const std::unique_ptr<DIR, CloseDirectory> directory{::opendir(path.c_str())};
    while (directory != nullptr && numbers.size() < most) {
        const dirent* entry = ::readdir(directory.get());
        if (entry == nullptr) {
            break;
        }
        int number = 0;
        const char* end = entry->d_name + std::strlen(entry->d_name);
        const auto parsed = std::from_chars(entry->d_name, end, number);
        if (parsed.ec == std::errc{} && parsed.ptr == end) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

}  // namespace

std::optional<std::string> LiveProcReader::ContainerOf(int tid)
{
    std::string text;
    if (SDK::FileUtils::ReadFile(ProcPath(tid, "/cgroup"), text, maxCgroupBytes) != 0) {
        return std::nullopt;
    }
    return std::string{SDK::CgroupPath::ContainerIdOfFile(text)};
}

// A group's file handle is its id (kernfs_encode_fh() in fs/kernfs/mount.c).
std::string LiveProcReader::ContainerOfGroup(std::uint64_t group)
{
    constexpr int kernfsHandle = 0xfe;  // FILEID_KERNFS (include/linux/exportfs.h)
    alignas(file_handle) std::array<std::byte, sizeof(file_handle) + sizeof group> space{};
    auto* handle = reinterpret_cast<file_handle*>(space.data());
    handle->handle_bytes = sizeof group;
    handle->handle_type = kernfsHandle;
    std::memcpy(space.data() + offsetof(file_handle, f_handle), &group, sizeof group);
    const SDK::FileDescriptor groups = OpenGroups();
    const SDK::FileDescriptor found{::open_by_handle_at(groups.Get(), handle, O_PATH | O_CLOEXEC)};
    const std::string path = found ? ReadLink("/proc/self/fd/" + std::to_string(found.Get())) : std::string{};
    return std::string{SDK::CgroupPath::ContainerId(path)};
}

// Process 1 has the host's mount namespace even where the agent runs in one of its own. Where its link cannot be read
// (it needs ptrace access, namespaces(7)) the agent's own stands in.
std::optional<bool> LiveProcReader::InHostMountNamespace(int tid)
{
    const std::string one = ReadLink(ProcPath(tid, "/ns/mnt"));
    if (one.empty()) {
        return std::nullopt;
    }
    return one == ReadLink("/proc/1/ns/mnt") || one == ReadLink("/proc/self/ns/mnt");
}

bool LiveProcReader::RunsCopyOfParent(int tid)
{
    const std::string program = ProcPath(tid, "/exe");
    if (ReadLink(program).starts_with("/memfd:")) {
        return true;
    }
    const int parent = ParentOf(tid);
    return parent > 0 && SameFile(program, ProcPath(parent, "/exe"));
}

int LiveProcReader::ParentOf(int tid)
{
    SDK::ProcessUtils::procStatus status;
    return SDK::ProcessUtils::GetProcessStatusInfo(tid, status) == 0 ? status.ppid : -1;
}

// Field 22 of the line, in clock ticks since the boot (proc(5)): CLOCK_BOOTTIME, which goes on while the machine
// sleeps. Counted from the end of the name, which may hold anything, a parenthesis included.
std::optional<std::chrono::nanoseconds> LiveProcReader::StartOf(int tid)
{
    constexpr int fieldsBefore = 19;  // after the name
    std::string text;
    if (SDK::FileUtils::ReadFile(ProcPath(tid, "/stat"), text, maxStatBytes) != 0) {
        return std::nullopt;
    }
    std::size_t at = text.rfind(") ");
    for (int i = 0; i <= fieldsBefore && at != std::string::npos; ++i) {
        at = text.find(' ', at + 1);
    }
    std::int64_t ticks = 0;
    if (at == std::string::npos ||
        std::from_chars(text.data() + at + 1, text.data() + text.size(), ticks).ec != std::errc{}) {
        return std::nullopt;
    }
    const std::chrono::nanoseconds sinceBoot{ticks * (nanosecondsPerSecond / ::sysconf(_SC_CLK_TCK))};
    return sinceBoot - (Now(CLOCK_BOOTTIME) - Now(CLOCK_MONOTONIC));
}

std::string LiveProcReader::ExecutableOf(int tid)
{
    return ReadLink(ProcPath(tid, "/exe"));
}

std::vector<int> LiveProcReader::Processes()
{
    return NumbersIn("/proc", static_cast<std::size_t>(-1));
}

std::vector<int> LiveProcReader::Threads(int pid)
{
    return NumbersIn(ProcPath(pid, "/task"), maxThreads);
}

}  // namespace Engine
