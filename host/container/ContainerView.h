// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <shared_mutex>
#include <string>

#include "host/container/ContainerGroups.h"
#include "host/container/ContainerTable.h"
#include "host/container/MetadataCache.h"
#include "host/ftrace/SyscallFilter.h"
#include "host/sdk/SystemView.h"
#include "host/sdk/TraceTime.h"

namespace Engine {

// The container table as other threads ask it: while a trace event is being delivered on the calling thread
// (SDK::TraceTime) as of that event's time, otherwise as of now. A thread that the table does not have is the host's if
// the kernel excludes it, and looked up in /proc otherwise. Questions change nothing.
//
// Ownership: nothing is owned; table, groups, cache and system outlive the view.   Thread: any.
class ContainerView final : public SDK::ContainerResolver {
public:
    ContainerView(const ContainerTable& table, const ContainerGroups& groups, const MetadataCache& cache,
                  SDK::SystemView& system)
        : table(table), groups(groups), cache(cache), system(system)
    {
    }

    int ContainerOf(int pid, std::string& id) override;
    bool MayBeEntering(int pid) override { return table.MayBeEntering(pid); }
    std::optional<Kept> FindKept(int tid) override { return table.FindKept(tid, SDK::TraceTime::Current()); }
    std::shared_ptr<const ContainerInfo> Record(const std::string& id) override { return cache.FindVouchedFor(id); }

    // `next`: not owned; null: none. Returns when no question asks the one before any more.
    void UseFilter(const SyscallFilter* next);

private:
    bool IsExcluded(int pid);

    const ContainerTable& table;
    const ContainerGroups& groups;
    const MetadataCache& cache;
    SDK::SystemView& system;
    std::shared_mutex mutex;
    const SyscallFilter* filter = nullptr;
};

}  // namespace Engine
