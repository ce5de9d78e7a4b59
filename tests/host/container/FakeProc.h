// SPDX-License-Identifier: Apache-2.0
// A /proc of the test's own making.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/container/ProcReader.h"

// 64 digits of one kind each, as engines make them.
inline const std::string idA(64, 'a');
inline const std::string idB(64, 'b');

inline std::string GroupOf(const std::string& id)
{
    return "/docker/" + id;
}

class FakeProc : public Engine::ProcReader {
public:
    struct Thread {
        std::string container;
        int parent = 1;
        bool hasHostMounts = false;
        bool runsCopy = false;
        std::vector<int> others = {};  // further threads of this process
        bool isZombie = false;         // its control group can still be read, its namespaces cannot
    };

    std::map<int, Thread> threads;  // processes, and those of their threads that answer differently
    int reads = 0;                  // of control groups

    std::optional<std::string> ContainerOf(int tid) override
    {
        ++reads;
        const auto found = threads.find(tid);
        return found == threads.end() ? std::nullopt : std::optional<std::string>{found->second.container};
    }
    std::optional<bool> InHostMountNamespace(int tid) override
    {
        return threads.count(tid) == 0 || threads[tid].isZombie ? std::nullopt
                                                                : std::optional{threads[tid].hasHostMounts};
    }
    bool RunsCopyOfParent(int tid) override { return threads.count(tid) != 0 && threads[tid].runsCopy; }
    int ParentOf(int tid) override { return threads.count(tid) != 0 ? threads[tid].parent : -1; }
    std::string ExecutableOf(int tid) override { return threads.count(tid) != 0 ? "/proc-knows/sh" : ""; }
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
        std::vector<int> ids{pid};
        ids.insert(ids.end(), threads[pid].others.begin(), threads[pid].others.end());
        return ids;
    }
};
