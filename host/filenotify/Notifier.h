// SPDX-License-Identifier: Apache-2.0
// From the kernel's events to what is sent to the subscribers: counts, excludes processes of the host, finds the path
// and matches the watches.
//
// The order matters for the cost: with a filesystem mark every write on the host comes by here, so the process decides
// before a directory is looked at. That test allocates nothing and asks once for a run of events of one process.
// Thread: that of filenotify_task; no lock inside.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "host/filenotify/AccessBatch.h"
#include "host/filenotify/FanotifyEvents.h"
#include "host/filenotify/Marks.h"
#include "host/filenotify/WatchTable.h"
#include "host/sdk/Counters.h"
#include "host/sdk/LoudestContainer.h"
#include "host/sdk/RepeatedReport.h"

namespace Engine {

class Notifier {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // Sends the accesses on, by way of the trace.
    using Sender = std::function<void(std::unique_ptr<AccessBatch>)>;

    // The table and the marks outlive this. `self`: the process whose own accesses are excluded.
    Notifier(const WatchTable& watches, Marks& marks, pid_t self, Sender sender);

    // Takes what was read from the group, at `now` or before.
    void Handle(std::span<const std::byte> buffer, TimePoint now);

    // Reading failed: events may be lost.
    void ReadFailed(std::error_code error, TimePoint now) { Lost(now, error.message()); }

private:
    void HandleEvent(const FanotifyEvent& event, TimePoint now);
    void CountEvent();
    void FindWatches(const FanotifyEvent& event, TimePoint now);
    bool Take(const FanotifyEvent& event, const std::string& path, TimePoint now);
    bool TakeByHandle(const FanotifyEvent& event, const std::string& path, TimePoint now);
    void Send(const FanotifyEvent& event, const std::string& path, TimePoint now);
    void Lost(TimePoint now, const std::string& why);

    const WatchTable& watches;
    Marks& marks;
    pid_t self;
    Sender sender;
    std::unique_ptr<AccessBatch> batch;  // of the buffer that is being handled; null while it has none
    std::vector<WatchMatch> matches;

    int lastPid = -1;  // the process that lastIsOfHost is about; -1: none. Good for one buffer only
    bool lastIsOfHost = false;
    std::string container;                      // of lastPid; empty: none
    SDK::LoudestContainer::Text lastContainer;  // the last one that was not empty

    SDK::LoudestContainer loudest;  // of the events since `loudestSince`
    TimePoint loudestSince;

    SDK::RepeatedReport losses;
    SDK::RepeatedReport unresolvedReport;
    SDK::Counters::Counter& read = SDK::Counters::Get(SDK::CounterName::notifyRead);
    SDK::Counters::Counter& overflow = SDK::Counters::Get(SDK::CounterName::notifyOverflow);
    SDK::Counters::Counter& notContainer = SDK::Counters::Get(SDK::CounterName::notifyNotContainer);
    SDK::Counters::Counter& unresolved = SDK::Counters::Get(NotifyCounterName::unresolved);
};

}  // namespace Engine
