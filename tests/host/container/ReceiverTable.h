// SPDX-License-Identifier: Apache-2.0
// The table of a receiver of notices, as the detection task keeps its own.
#pragma once

#include <cstdlib>
#include <map>

// At more than 640 records it forgets, before it puts another in, all but those that ended up to two seconds ago.
class ReceiverTable {
public:
    void OnFork(int parent, int child, long second)
    {
        Prune(second);
        records.emplace(parent, 0);
        records[child] = 0;
    }
    void OnStart(int pid, long second)
    {
        if (records.count(pid) == 0) {
            Prune(second);
            records[pid] = 0;
        }
    }
    void OnStop(int pid) { records.erase(pid); }
    void OnExit(int pid, long second)
    {
        if (records.count(pid) != 0) {
            records[pid] = second;
        }
    }
    bool Knows(int pid) const { return records.count(pid) != 0; }
    std::size_t Size() const { return records.size(); }

private:
    void Prune(long second)
    {
        if (records.size() > 640) {
            std::erase_if(records, [second](const auto& record) { return std::abs(record.second - second) > 2; });
        }
    }

    std::map<int, long> records;  // id to the second of its exit, 0 while it lives
};
