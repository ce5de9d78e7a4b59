// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerView.h"

#include "host/container/RuntimeSetUp.h"
#include "host/sdk/TraceTime.h"

namespace Engine {

int ContainerView::ContainerOf(int pid, std::string& id)
{
    if (const auto container = table.ContainerAt(pid, SDK::TraceTime::Current())) {
        id = *container == nullptr ? std::string{} : **container;
        return 0;
    }
    const auto found = RuntimeSetUp::Look(system, pid);
    if (!found) {
        return -1;
    }
    id = found->state == ContainerTable::State::Inside ? found->container : std::string{};
    return 0;
}

}  // namespace Engine
