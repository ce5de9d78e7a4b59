// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/AccessBatch.h"

#include <algorithm>
#include <memory>

#include "host/filenotify/NotifyLog.h"
#include "host/sdk/Counters.h"
#include "host/sdk/SystemView.h"
#include "host/sdk/TraceTime.h"
#include "messages/FileNotifyMessages.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

using SDK::Counters;
namespace CounterName = SDK::CounterName;

namespace {

// One item of the subscriber's queue: a container that writes to one file after another must not fill it up.
class Accesses final : public Framework::Message {
public:
    Accesses(std::vector<AccessBatch::Access>::const_iterator begin,
             std::vector<AccessBatch::Access>::const_iterator end)
        : accesses(begin, end)
    {
    }

    int MessageHandle(void* target) override
    {
        std::size_t failures = 0;
        for (const AccessBatch::Access& access : accesses) {
            FileNotifyMessage message{access.watch, access.path, static_cast<unsigned int>(access.mask)};
            message.SetProcess(static_cast<unsigned int>(access.pid), {});
            try {
                message.MessageHandle(target);
            } catch (...) {
                ++failures;
            }
        }
        if (failures != 0) {
            NotifyLog::Warning("the receiver of file notifications failed on %z of %z", failures, accesses.size());
        }
        return 0;
    }
    unsigned long EventCount() const override { return accesses.size(); }

private:
    std::vector<AccessBatch::Access> accesses;
};

}  // namespace

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
void AccessBatch::OnObserved(const ReportActive& reportActive)
{
    const std::chrono::steady_clock::time_point readAt{When()};
    const std::size_t dropped = std::erase_if(accesses, [&](const Access& access) {
        const AccessOrigin origin = OriginOf(access.pid, readAt);
        return origin == AccessOrigin::Host || origin == AccessOrigin::Entering;
    });
    Counters::Get(CounterName::notifyNotContainer).fetch_add(dropped, std::memory_order_relaxed);
    for (const Access& access : accesses) {
        reportActive(access.pid);
    }
}

void AccessBatch::OnFlushed(const MessageSender& send)
{
    std::stable_sort(accesses.begin(), accesses.end(),
                     [](const Access& left, const Access& right) { return left.subscriber < right.subscriber; });
    std::vector<Access> refused;
    for (auto next = accesses.begin(); next != accesses.end();) {
        const auto end = std::find_if(next, accesses.end(),
                                      [&](const Access& access) { return access.subscriber != next->subscriber; });
        const Sending result = send(next->subscriber, std::make_unique<Accesses>(next, end));
        if (result == Sending::Accepted) {
            Counters::Get(NotifyCounterName::delivered).fetch_add(end - next, std::memory_order_relaxed);
        }
        if (result == Sending::Refused) {
            refused.insert(refused.end(), next, end);
        }
        next = end;
    }
    accesses = std::move(refused);
}

}  // namespace Engine
