// SPDX-License-Identifier: Apache-2.0
// The task "ftrace_task": reads the kernel's trace and delivers its events.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "host/ftrace/EventDelivery.h"
#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/SubscriptionTable.h"
#include "host/ftrace/TraceCounts.h"
#include "host/ftrace/TraceObserver.h"
#include "host/ftrace/TraceStatus.h"
#include "messages/FtraceMessages.h"

namespace Engine {

// Owner: the module. Subscriptions and observers may come before the thread runs; they are kept when it is stopped and
// started again. One mutex guards everything but the waiter: the thread holds it while it reads, for milliseconds, and
// never while it waits.
class TraceTask final : public FtraceTask, public TraceObservable, public TraceStatus {
public:
    explicit TraceTask(std::unique_ptr<LiveTrace> trace);
    ~TraceTask() override;

    int Init() override;

    // Stops all recording and delivers and counts what the buffers still hold.
    int UnInit() override;

    // One pass: waits for an event, a message or the time of the next report, serves the messages, reads one round.
    int Run() override;

    // 0, or an errno. An audit rule is taken and records nothing: its subscriber gets the calls that others ask for.
    // ENOENT for an event that cannot be had, EINVAL without a requester, else the kernel's refusal. What a task that
    // is restarted takes back stays in force until it runs again.
    int Receive(const FtraceWatchMessage& message) override;

    // Keeps what follows the trace until the trace has got so far.
    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override;

    bool AddObserver(TraceObserver& observer) override;
    void RemoveObserver(TraceObserver& observer) override;
    void RequestRound() override;
    const SyscallFilter* Filter() override { return trace->Filter(); }

    std::set<std::string> RecordedEvents() override;
    std::string CallPlace() const override { return trace->CallPlace(); }
    std::string WhyWithoutBpf() const override { return trace->WhyWithoutBpf(); }
    std::vector<std::string> Repair() override;

private:
    using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC, the clock of the events

    static bool IsRestarting(const TraceSubscriberQueue* subscriber);
    void StopUnused(const std::vector<const KnownEvent*>& events);
    Sending Send(const std::string& task, std::unique_ptr<Framework::Message> message);
    void WatchDescriptors();
    void IgnoreDescriptors();
    void OnReady(int fd, std::uint32_t events);
    int WaitMs() const;
    void Pace();
    void Round();
    void ForgetTheDead();
    void LookAfterLosses(Clock::time_point now);

    std::unique_ptr<LiveTrace> trace;
    std::atomic<bool> wasTampered{false};  // events may be missing
    std::mutex mutex;
    TraceCounts counts;
    TraceOutlet outlet;
    SubscriptionTable table;
    EventDelivery delivery;
    std::set<int> watched;  // by the waiter; task's thread only
    Clock::time_point lastRound;
    Clock::time_point evenly;
    Clock::time_point lastLook;
};

}  // namespace Engine
