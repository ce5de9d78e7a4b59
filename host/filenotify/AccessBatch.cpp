// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/AccessBatch.h"

#include <memory>

#include "host/sdk/Counters.h"
#include "host/sdk/SystemView.h"
#include "host/sdk/TraceTime.h"
#include "messages/FileNotifyMessages.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

using SDK::Counters;
namespace CounterName = SDK::CounterName;

AccessOrigin OriginOf(int pid, std::chrono::steady_clock::time_point when)
{
    SDK::TraceTime::Scope time;
    time.MoveTo(when.time_since_epoch());
    std::string containerId;
    if (SDK::ProcessUtils::GetContainerID(pid, containerId) != 0) {
        return AccessOrigin::Unknown;
    }
    if (!containerId.empty()) {
        return AccessOrigin::Container;
    }
    return SDK::SystemView::Current().MayBeEntering(pid) ? AccessOrigin::Entering : AccessOrigin::Host;
}

AccessBatch::~AccessBatch()
{
    Counters::Get(CounterName::notifyLostQueue).fetch_add(accesses.size(), std::memory_order_relaxed);
}

// As of the time of the access: what a runtime did before it became the container's program stays the runtime's.
void AccessBatch::OnObserved()
{
    const std::chrono::steady_clock::time_point readAt{When()};
    const std::size_t left = std::erase_if(accesses, [&](const Access& access) {
        const AccessOrigin origin = OriginOf(access.pid, readAt);
        return origin == AccessOrigin::Host || origin == AccessOrigin::Entering;
    });
    Counters::Get(CounterName::notifyNotContainer).fetch_add(left, std::memory_order_relaxed);
    std::string containerId;
    for (const Access& access : accesses) {
        SDK::ProcessUtils::GetContainerID(access.pid, containerId);  // asked now, it has the process announced
    }
}

void AccessBatch::OnFlushed(const MessageSender& send)
{
    std::uint64_t delivered = 0;
    std::erase_if(accesses, [&](const Access& access) {
        auto message =
            std::make_unique<FileNotifyMessage>(access.watch, access.path, static_cast<unsigned int>(access.mask));
        message->SetProcess(static_cast<unsigned int>(access.pid), {});
        const Sending result = send(access.subscriber, std::move(message));
        delivered += result == Sending::Accepted ? 1 : 0;
        return result != Sending::Refused;
    });
    Counters::Get(NotifyCounterName::delivered).fetch_add(delivered, std::memory_order_relaxed);
}

}  // namespace Engine
