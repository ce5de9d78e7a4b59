// SPDX-License-Identifier: Apache-2.0
// A world of the test's own making behind the SDK: clock, processes, containers of processes. In force while it lives.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/sdk/SystemView.h"

namespace Support {

class FakeSystem : public SDK::SystemView {
public:
    struct Process {
        SDK::ProcessUtils::procStatus status;           // as it is by default: cannot be read
        std::string container;                          // empty: a process of the host
        std::string executable;                         // empty: cannot be read
        std::map<std::string, std::string> namespaces;  // empty: cannot be read
        std::vector<int> threads = {};                  // beside the first; those that answer otherwise are put, too
        std::chrono::nanoseconds start = std::chrono::nanoseconds::max();
    };

    FakeSystem() : before(SDK::SystemView::Exchange(this)) {}
    FakeSystem(const FakeSystem&) = delete;
    FakeSystem& operator=(const FakeSystem&) = delete;
    ~FakeSystem() override { SDK::SystemView::Exchange(before); }

    std::atomic<std::int64_t> now{1'700'000'000};
    std::map<std::uint64_t, std::string> cgroups;  // containers by the ids of control groups

    // The process may be changed as long as no other thread asks.
    Process& Put(int pid, Process process)
    {
        const std::lock_guard lock(mutex);
        return processes[pid] = std::move(process);
    }
    void PutInContainer(int pid, const std::string& container) { Put(pid, {{1, "sh"}, container, "", {}}); }

    std::int64_t WallClockSeconds() override { return now; }
    int ContainerOf(int pid, std::string& id) override
    {
        return With(pid, [&](const Process& process) { return (id = process.container, true); });
    }
    int ExecutablePath(unsigned int pid, std::string& path) override
    {
        return With(static_cast<int>(pid), [&](const Process& process) {
            return !process.executable.empty() && (path = process.executable, true);
        });
    }
    int Status(int pid, SDK::ProcessUtils::procStatus& status) override
    {
        return With(pid, [&](const Process& process) { return (status = process.status).ppid != -1; });
    }
    int Namespaces(int pid, std::map<std::string, std::string>& namespaces) override
    {
        namespaces.clear();
        return With(pid, [&](const Process& process) { return !(namespaces = process.namespaces).empty(); });
    }
    std::vector<int> Processes() override
    {
        const std::lock_guard lock(mutex);
        std::vector<int> pids;
        for (const auto& [pid, process] : processes) {
            pids.push_back(pid);
        }
        return pids;
    }
    int CommandLine(int pid, std::string& commandLine) override
    {
        return With(pid, [&](const Process& process) { return (commandLine = process.status.name, true); });
    }
    std::vector<int> Threads(int pid) override
    {
        std::vector<int> threads;
        With(pid, [&](const Process& process) { return (threads = process.threads, true); });
        return threads;
    }
    std::optional<std::string> CgroupContainer(int tid) override
    {
        std::string id;
        return ContainerOf(tid, id) == 0 ? std::optional{id} : std::nullopt;
    }
    std::string ContainerOfCgroup(std::uint64_t cgroup) override { return cgroups[cgroup]; }
    bool RunSameFile(int tid, int other) override
    {
        std::string file;
        return ExecutablePath(static_cast<unsigned int>(tid), file) == 0 &&
               With(other, [&](const Process& process) { return process.executable == file; }) == 0;
    }
    std::optional<std::chrono::nanoseconds> StartTime(int tid) override
    {
        std::optional<std::chrono::nanoseconds> start;
        With(tid, [&](const Process& process) { return (start = process.start).has_value(); });
        return start;
    }

private:
    // 0 when there is such a process and `read` could take from it what is asked for, otherwise -1.
    template <class Read>
    int With(int pid, const Read& read)
    {
        const std::lock_guard lock(mutex);
        const auto found = processes.find(pid);
        return found != processes.end() && read(found->second) ? 0 : -1;
    }

    SDK::SystemView* before;
    std::mutex mutex;
    std::map<int, Process> processes;
};

}  // namespace Support
