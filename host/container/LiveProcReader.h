// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "host/container/ProcReader.h"

namespace Engine {

// The running system's /proc.
class LiveProcReader : public ProcReader {
public:
    std::optional<std::string> ContainerOf(int tid) override;
    std::string ContainerOfGroup(std::uint64_t group) override;
    std::optional<bool> InHostMountNamespace(int tid) override;
    bool RunsCopyOfParent(int tid) override;
    int ParentOf(int tid) override;
    std::optional<std::chrono::nanoseconds> StartOf(int tid) override;
    std::string ExecutableOf(int tid) override;
    std::vector<int> Processes() override;
    std::vector<int> Threads(int pid) override;
};

}  // namespace Engine
