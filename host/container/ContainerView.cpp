// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerView.h"

#include <mutex>

#include "host/container/RuntimeSetUp.h"

namespace Engine {

int ContainerView::ContainerOf(int pid, std::string& id)
{
    const bool isHostNow = IsExcluded(pid);
    if (const auto container = table.ContainerAt(pid, SDK::TraceTime::Current(), isHostNow)) {
        id = *container == nullptr ? std::string{} : **container;
        return 0;
    }
    if (isHostNow) {
        id.clear();
        return 0;
    }
    const auto found = RuntimeSetUp::Look(system, groups, pid);
    if (!found) {
        return -1;
    }
    id = found->state == ContainerTable::State::Inside ? found->container : std::string{};
    return 0;
}

bool ContainerView::IsExcluded(int pid)
{
    const std::shared_lock lock{mutex};
    return filter != nullptr && filter->IsExcluded(pid);
}

void ContainerView::UseFilter(const SyscallFilter* next)
{
    const std::lock_guard lock{mutex};
    filter = next;
}

}  // namespace Engine
