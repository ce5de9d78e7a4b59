// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "host/container/ContainerTable.h"
#include "host/sdk/SystemView.h"

namespace Engine {

// The container table as other threads ask it: while a trace event is being delivered on the calling thread
// (SDK::TraceTime) as of that event's time, otherwise as of now. A thread that the table does not have is looked up in
// /proc. Questions change nothing.
//
// Ownership: neither is owned; both outlive the view.   Thread: any.
class ContainerView final : public SDK::ContainerResolver {
public:
    ContainerView(const ContainerTable& table, SDK::SystemView& system) : table(table), system(system) {}

    int ContainerOf(int pid, std::string& id) override;
    bool MayBeEntering(int pid) override { return table.MayBeEntering(pid); }

private:
    const ContainerTable& table;
    SDK::SystemView& system;
};

}  // namespace Engine
