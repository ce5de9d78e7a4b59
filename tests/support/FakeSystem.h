// SPDX-License-Identifier: Apache-2.0
// A world of the test's own making behind the SDK: clock, processes, containers of processes. In force while it lives.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "host/sdk/SystemView.h"

namespace Support {

class FakeSystem : public SDK::SystemView {
public:
    // The parent and the name come first. A parent of -1 and what is empty cannot be read.
    struct Process : SDK::ProcessUtils::procStatus {
        std::string container;  // empty: a process of the host
        std::string executable;
        std::map<std::string, std::string> namespaces;
        std::string place = {};         // working directory
        std::vector<int> threads = {};  // beside the first; those that answer otherwise are put, too
        std::chrono::nanoseconds start = std::chrono::nanoseconds::max();
    };

    ~FakeSystem() override { SDK::SystemView::Exchange(before); }

    std::atomic<std::int64_t> now{1'700'000'000};
    std::map<std::uint64_t, std::string> cgroups;                                 // paths by the ids of control groups
    std::map<std::string, std::shared_ptr<const Engine::ContainerInfo>> records;  // by the ids of containers

    // The process may be changed as long as no other thread asks.
    Process& Put(int pid, Process process)
    {
        const std::lock_guard lock(mutex);
        return processes[pid] = std::move(process);
    }
    void PutInContainer(int pid, const std::string& container) { Put(pid, {{1, "sh"}, container, "", {}}); }

    std::int64_t WallClockSeconds() override { return now; }
    int ContainerOf(int pid, std::string& id) override { return Read(pid, &Process::container, id); }
    std::shared_ptr<const Engine::ContainerInfo> ContainerRecord(const std::string& id) override
    {
        const auto found = records.find(id);
        return found == records.end() ? nullptr : found->second;
    }
    int ExecutablePath(unsigned int pid, std::string& path) override
    {
        return Read(static_cast<int>(pid), &Process::executable, path) == 0 && !path.empty() ? 0 : -1;
    }
    int Status(int pid, SDK::ProcessUtils::procStatus& status) override
    {
        const bool isReadable = Read(pid, &Process::ppid, status.ppid) == 0 && status.ppid != -1;
        return isReadable ? Read(pid, &Process::name, status.name) : -1;
    }
    int Namespaces(int pid, std::map<std::string, std::string>& namespaces) override
    {
        return Read(pid, &Process::namespaces, namespaces) == 0 && !namespaces.empty() ? 0 : -1;
    }
    int CommandLine(int pid, std::string& commandLine) override { return Read(pid, &Process::name, commandLine); }
    std::optional<SDK::ProcessDetails> Describe(int tid) override
    {
        SDK::ProcessDetails details;
        details.process = tid;
        const bool isThere = Read(tid, &Process::ppid, details.parent) == 0;
        Read(tid, &Process::executable, details.executable);
        details.linkedExecutable = details.executable;
        Read(tid, &Process::place, details.workingDirectory);
        std::string line;
        Read(tid, &Process::name, line);
        std::istringstream words(line);
        details.arguments.assign(std::istream_iterator<std::string>(words), {});
        return isThere ? std::optional{details} : std::nullopt;
    }
    std::vector<int> Processes() override
    {
        const std::lock_guard lock(mutex);
        std::vector<int> pids;  // by hand: clang 14 does not take the views of GCC's library
        for (const auto& [pid, process] : processes) {
            pids.push_back(pid);
        }
        return pids;
    }
    std::vector<int> Threads(int pid) override
    {
        std::vector<int> threads;
        Read(pid, &Process::threads, threads);
        return threads;
    }
    std::optional<std::vector<SDK::Cgroup>> Cgroups(int tid) override
    {
        std::string path;
        if (Read(tid, &Process::container, path) != 0) {
            return std::nullopt;
        }
        return std::vector<SDK::Cgroup>{{0, path.starts_with('/') ? path : "/docker/" + path, 0}};
    }
    std::string PathOfCgroup(std::uint64_t cgroup) override { return cgroups[cgroup]; }
    std::optional<bool> HasHostRoot(int tid) override
    {
        std::map<std::string, std::string> namespaces;
        return Namespaces(tid, namespaces) == 0 ? std::optional{namespaces["mnt"] == "host"} : std::nullopt;
    }
    std::optional<bool> HasHostMounts(int tid) override
    {
        std::map<std::string, std::string> host;
        std::map<std::string, std::string> own;
        Namespaces(1, host);
        return Namespaces(tid, own) == 0 ? std::optional{own["mnt"] == host["mnt"]} : std::nullopt;
    }
    bool RunSameFile(int tid, int other) override
    {
        std::string file;
        std::string otherFile;
        ExecutablePath(static_cast<unsigned int>(tid), file);
        return Read(other, &Process::executable, otherFile) == 0 && !file.empty() && file == otherFile;
    }
    std::optional<Stat> StatOf(int tid) override
    {
        const std::lock_guard lock(mutex);
        for (const auto& [pid, process] : processes) {
            const auto& threads = process.threads;
            const bool isIts = pid == tid || std::find(threads.begin(), threads.end(), tid) != threads.end();
            if (isIts && process.ppid != -1) {
                return Stat{process.ppid, process.start};
            }
        }
        return std::nullopt;
    }

private:
    // 0, or -1 when there is no such process.
    template <class Owner, class Value>
    int Read(int pid, Value Owner::*member, Value& value)
    {
        const std::lock_guard lock(mutex);
        const auto found = processes.find(pid);
        value = found == processes.end() ? value : found->second.*member;
        return found == processes.end() ? -1 : 0;
    }

    std::mutex mutex;
    std::map<int, Process> processes;
    SDK::SystemView* const before = SDK::SystemView::Exchange(this);
};

}  // namespace Support
