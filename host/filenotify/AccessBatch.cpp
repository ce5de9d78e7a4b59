// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/AccessBatch.h"

#include <algorithm>
#include <memory>
#include <numeric>
#include <utility>

#include "host/filenotify/NotifyLog.h"
#include "host/sdk/Counters.h"
#include "host/sdk/SystemView.h"
#include "host/sdk/TraceTime.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace CounterName = SDK::CounterName;

namespace {

// One item of the subscriber's queue: a container that writes to one file after another must not fill it up.
class AccessMessage final : public Framework::Message {
public:
    explicit AccessMessage(std::vector<FileNotifyMessage> accesses) : accesses(std::move(accesses)) {}

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

void AccessBatch::OnReached(const ReportActive& reportActive, const MessageSender& send)
{
    std::vector<int> pids;
    for (auto& [subscriber, of] : std::exchange(accesses, {})) {
        DropHosts(of);
        Accesses part;
        for (FileNotifyMessage& access : of) {
            const int pid = static_cast<int>(access.GetEventProcessId());
            if (std::find(pids.begin(), pids.end(), pid) == pids.end()) {
                if (pids.size() == mostActive) {
                    reportActive(std::exchange(pids, {}));
                    Send(subscriber, std::exchange(part, {}), send);
                }
                pids.push_back(pid);
            }
            part.push_back(std::move(access));
        }
        if (!part.empty()) {
            reportActive(std::exchange(pids, {}));
            Send(subscriber, std::move(part), send);
        }
    }
}

// As of the time of the access: what a runtime did before it became the container's program stays the runtime's.
void AccessBatch::DropHosts(Accesses& of) const
{
    const std::chrono::steady_clock::time_point readAt{When()};
    std::string container;
    Count(CounterName::notifyNotContainer, std::erase_if(of, [&](const FileNotifyMessage& access) {
              const AccessOrigin origin = OriginOf(static_cast<int>(access.GetEventProcessId()), readAt, container);
              return origin == AccessOrigin::Host || origin == AccessOrigin::Entering;
          }));
}

void AccessBatch::Send(const std::string& subscriber, Accesses part, const MessageSender& send)
{
    const std::size_t size = part.size();
    const Sending result = send(subscriber, std::make_unique<AccessMessage>(std::move(part)));
    if (result == Sending::Accepted) {
        Count(NotifyCounterName::delivered, size);
    } else if (result == Sending::Refused) {
        Count(CounterName::notifyLostQueue, size);
    }
}

}  // namespace Engine
