// SPDX-License-Identifier: Apache-2.0
// A /proc of the test's own making.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "host/container/ProcReader.h"

// 64 digits of one kind each, as engines make them.
inline const std::string idA(64, 'a');
inline const std::string idB(64, 'b');

class FakeProc : public Engine::ProcReader {
public:
    struct Thread {
        std::string container;
        int parent = 1;
        bool hasHostMounts = false;
        bool runsCopy = false;
        std::vector<int> others = {};  // further threads of this process
        bool isZombie = false;         // its control group can still be read, its namespaces cannot
        std::chrono::nanoseconds start = std::chrono::seconds{5000};  // after all that the tests tell
    };

    std::map<std::uint64_t, std::string> groups;  // the containers of those that still exist
    std::map<int, Thread> threads;                // processes, and those of their threads that answer differently

    std::optional<std::string> ContainerOf(int tid) override
    {
        return IsThere(tid) ? std::optional{threads[tid].container} : std::nullopt;
    }
    std::string ContainerOfGroup(std::uint64_t group) override { return groups.count(group) != 0 ? groups[group] : ""; }
    std::optional<bool> InHostMountNamespace(int tid) override
    {
        return IsThere(tid) && !threads[tid].isZombie ? std::optional{threads[tid].hasHostMounts} : std::nullopt;
    }
    bool RunsCopyOfParent(int tid) override { return IsThere(tid) && threads[tid].runsCopy; }
    int ParentOf(int tid) override { return IsThere(tid) ? threads[tid].parent : -1; }
    std::optional<std::chrono::nanoseconds> StartOf(int tid) override
    {
        return IsThere(tid) ? std::optional{threads[tid].start} : std::nullopt;
    }
    std::string ExecutableOf(int /*tid*/) override { return "/proc-knows/sh"; }
    std::vector<int> Processes() override
    {
        std::vector<int> ids;
        for (const auto& item : threads) {
            ids.push_back(item.first);
        }
        return ids;
    }
    std::vector<int> Threads(int pid) override
    {
        std::vector<int> ids{threads[pid].others};
        ids.push_back(pid);
        return ids;
    }

private:
    bool IsThere(int tid) const { return threads.count(tid) != 0; }
};
