// SPDX-License-Identifier: Apache-2.0
// A world of the test's own making behind the SDK: clock, processes, containers of processes. In force while it lives.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/sdk/SystemView.h"

namespace Support {

class FakeSystem : public SDK::SystemView {
public:
    struct Process {
        SDK::ProcessUtils::procStatus status;
        std::string container;   // empty: a process of the host
        std::string executable;  // empty: cannot be read
        std::map<std::string, std::string> namespaces;
    };

    FakeSystem() : before(SDK::SystemView::Exchange(this)) {}
    FakeSystem(const FakeSystem&) = delete;
    FakeSystem& operator=(const FakeSystem&) = delete;
    ~FakeSystem() override { SDK::SystemView::Exchange(before); }

    std::atomic<std::int64_t> now{1'700'000'000};

    void Put(int pid, Process process)
    {
        const std::lock_guard lock(mutex);
        processes[pid] = std::move(process);
    }
    void PutInContainer(int pid, const std::string& container) { Put(pid, {{1, "sh"}, container, "", {}}); }

    std::int64_t WallClockSeconds() override { return now; }
    int ContainerOf(int pid, std::string& id) override
    {
        return With(pid, [&](const Process& process) { id = process.container; });
    }
    int ExecutablePath(unsigned int pid, std::string& path) override
    {
        int result = -1;
        With(static_cast<int>(pid), [&](const Process& process) {
            if (!process.executable.empty()) {
                path = process.executable;
                result = 0;
            }
        });
        return result;
    }
    int Status(int pid, SDK::ProcessUtils::procStatus& status) override
    {
        return With(pid, [&](const Process& process) { status = process.status; });
    }
    int Namespaces(int pid, std::map<std::string, std::string>& namespaces) override
    {
        namespaces.clear();
        return With(pid, [&](const Process& process) { namespaces = process.namespaces; });
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
        return With(pid, [&](const Process& process) { commandLine = process.status.name; });
    }

private:
    template <class Read>
    int With(int pid, const Read& read)
    {
        const std::lock_guard lock(mutex);
        const auto found = processes.find(pid);
        if (found == processes.end()) {
            return -1;
        }
        read(found->second);
        return 0;
    }

    SDK::SystemView* before;
    std::mutex mutex;
    std::map<int, Process> processes;
};

}  // namespace Support
