// SPDX-License-Identifier: Apache-2.0
// The system view of the running system: the clock, and /proc.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <utility>

#include "host/sdk/SystemView.h"

namespace SDK {

// A process may go away between any two reads; every answer then is "no such process", never half an answer.
class LiveSystem : public SystemView {
public:
    // `procRoot`: where the proc file system is mounted.
    explicit LiveSystem(std::string procRoot = "/proc");

    std::int64_t WallClockSeconds() override;
    int ContainerOf(int pid, std::string& id) override;
    bool MayBeEntering(int pid) override;
    std::shared_ptr<const Engine::ContainerInfo> ContainerRecord(const std::string& id) override;
    int ExecutablePath(unsigned int pid, std::string& path) override;
    int Status(int pid, ProcessUtils::procStatus& status) override;
    int Namespaces(int pid, std::map<std::string, std::string>& namespaces) override;
    std::vector<int> Processes() override;
    std::vector<int> Threads(int pid) override;
    int CommandLine(int pid, std::string& commandLine) override;
    std::optional<ProcessDetails> Describe(int tid) override;
    std::optional<std::vector<Cgroup>> Cgroups(int tid) override;
    std::string PathOfCgroup(std::uint64_t cgroup) override;
    std::optional<bool> HasHostRoot(int tid) override;
    std::optional<bool> HasHostMounts(int tid) override;
    bool RunSameFile(int tid, int other) override;
    std::optional<Stat> StatOf(int tid) override;

    // As SystemView's. Not from within a resolver's call.
    void SetContainerResolver(ContainerResolver* next);

private:
    struct File {
        dev_t device;
        ino_t number;
        bool operator==(const File&) const = default;
    };

    static std::optional<File> FileAt(const std::string& path);
    void LookAtHost();
    std::optional<ProcessDetails> Read(int tid);
    std::string PathOf(long pid, const char* file) const;

    const std::string procRoot;
    std::once_flag hostOnce;  // of these: what process 1 has stays what it is
    std::optional<File> hostRoot;
    std::optional<File> hostMounts;
    std::optional<File> ownMounts;
    std::shared_mutex resolverMutex;  // held shared while the resolver answers: it is never gone under a caller
    ContainerResolver* resolver = nullptr;
};

}  // namespace SDK
