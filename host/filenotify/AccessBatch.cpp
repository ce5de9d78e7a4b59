// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/AccessBatch.h"

#include <memory>
#include <numeric>

#include "host/filenotify/NotifyLog.h"
#include "host/sdk/Counters.h"
#include "host/sdk/SystemView.h"
#include "host/sdk/TraceTime.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace CounterName = SDK::CounterName;

namespace {

// One item of the subscriber's queue: a container that writes to one file after another must not fill it up.
class Accesses final : public Framework::Message {
public:
    explicit Accesses(std::vector<FileNotifyMessage> accesses) : accesses(std::move(accesses)) {}

    int MessageHandle(void* target) override
    {
        std::size_t failures = 0;
        for (FileNotifyMessage& access : accesses) {
            try {
                access.MessageHandle(target);
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
    std::vector<FileNotifyMessage> accesses;
};

void Count(const char* counter, std::size_t accesses)
{
    SDK::Counters::Get(counter).fetch_add(accesses, std::memory_order_relaxed);
}

}  // namespace

AccessOrigin OriginOf(int pid, std::chrono::steady_clock::time_point when, std::string& container)
{
    SDK::TraceTime::Scope time;
    time.MoveTo(when.time_since_epoch());
    container.clear();
    if (SDK::ProcessUtils::GetContainerID(pid, container) != 0) {
        return AccessOrigin::Unknown;
    }
    if (!container.empty()) {
        return AccessOrigin::Container;
    }
    return SDK::SystemView::Current().MayBeEntering(pid) ? AccessOrigin::Entering : AccessOrigin::Host;
}

AccessBatch::~AccessBatch()
{
    Count(CounterName::notifyLostQueue, EventCount());
}

unsigned long AccessBatch::EventCount() const
{
    return std::accumulate(accesses.begin(), accesses.end(), 0UL,
                           [](unsigned long sum, const auto& of) { return sum + of.second.size(); });
}

// As of the time of the access: what a runtime did before it became the container's program stays the runtime's.
void AccessBatch::OnObserved(const ReportActive& reportActive)
{
    const std::chrono::steady_clock::time_point readAt{When()};
    std::string container;
    for (auto& [subscriber, of] : accesses) {
        Count(CounterName::notifyNotContainer, std::erase_if(of, [&](const FileNotifyMessage& access) {
                  const AccessOrigin origin = OriginOf(static_cast<int>(access.GetEventProcessId()), readAt, container);
                  return origin == AccessOrigin::Host || origin == AccessOrigin::Entering;
              }));
        for (const FileNotifyMessage& access : of) {
            reportActive(static_cast<int>(access.GetEventProcessId()));
        }
    }
}

void AccessBatch::OnFlushed(const MessageSender& send)
{
    for (auto& [subscriber, of] : std::exchange(accesses, {})) {
        if (of.empty()) {
            continue;
        }
        const std::size_t size = of.size();
        const Sending result = send(subscriber, std::make_unique<Accesses>(std::move(of)));
        if (result == Sending::Accepted) {
            Count(NotifyCounterName::delivered, size);
        } else if (result == Sending::Refused) {
            Count(CounterName::notifyLostQueue, size);
        }
    }
}

}  // namespace Engine
