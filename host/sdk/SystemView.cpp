// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/SystemView.h"

#include <atomic>

#include "host/sdk/LiveSystem.h"

namespace SDK {

namespace {

LiveSystem& Live()
{
    static auto* const live = new LiveSystem;  // never destroyed: threads may ask while the process exits
    return *live;
}

std::atomic<SystemView*> replacement{nullptr};

}  // namespace

SystemView& SystemView::Current()
{
    SystemView* const other = replacement.load(std::memory_order_acquire);
    return other != nullptr ? *other : Live();
}

SystemView* SystemView::Exchange(SystemView* next)
{
    SystemView* const before = replacement.exchange(next, std::memory_order_acq_rel);
    return before != nullptr ? before : &Live();
}

void SystemView::SetContainerResolver(ContainerResolver* resolver)
{
    Live().SetContainerResolver(resolver);
}

}  // namespace SDK
