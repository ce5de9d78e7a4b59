// SPDX-License-Identifier: Apache-2.0
// From the kernel's events to the subscribers' messages: counts, leaves the host's own processes out, finds the path,
// matches the watches, holds the notification back for a moment and queues it.
//
// The order matters for the cost: with a filesystem mark every write of the host comes by here, so the process decides
// before a directory is looked at. That test allocates nothing and asks once for a run of events of one process.
//
// Held back, because a notification and the trace events that announce its process take different ways to the same
// subscriber: read at once it would overtake them and speak of a process that nobody knows yet. The trace events are
// there within a millisecond or two. The path is looked up before, while the directory is most likely still there.
// Thread: the task's only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "host/filenotify/DelayQueue.h"
#include "host/filenotify/DirectoryLookup.h"
#include "host/filenotify/FanotifyEvents.h"
#include "host/filenotify/NotifyLog.h"
#include "host/filenotify/WatchTable.h"
#include "host/sdk/Counters.h"
#include "messages/FileNotifyMessages.h"

namespace Engine {

// Names of counters beside those of the SDK's list.
namespace NotifyCounterName {
inline constexpr char delivered[] = "notify.delivered";    // queued for a subscriber
inline constexpr char unresolved[] = "notify.unresolved";  // not the host's, in a directory without a path
}  // namespace NotifyCounterName

class Notifier {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // Notifications held back at most. More are sent early, so that no burst makes the agent grow.
    static constexpr std::size_t maxHeld = 16384;

    // Queues a notification for the task of that name; false: refused.
    using Sender = std::function<bool(const std::string& task, std::unique_ptr<FileNotifyMessage> message)>;

    // The table and the lookup outlive this. `self`: the process whose own accesses are left out.
    Notifier(WatchTable& watches, DirectoryLookup& lookup, pid_t self, std::chrono::milliseconds hold, Sender sender);

    // Takes what was read from the group.
    void Handle(std::span<const std::byte> buffer, TimePoint now);

    // Reading failed: events may be lost.
    void ReadFailed(std::error_code error, TimePoint now);

    // Queues the notifications whose time has come. Those of withdrawn watches are dropped, and those of processes that
    // were unknown when they were read and have turned out to be the host's.
    void Release(TimePoint now);

    // When Release has something to do again; empty: nothing is held back.
    std::optional<TimePoint> NextRelease() const { return held.NextDue(); }

private:
    // Entering: the host's as far as is known, but it may have become a container's by the time of its access.
    enum class Origin : std::uint8_t { Host, Container, Unknown, Entering };
    struct Notification {
        int watch;
        std::uint64_t mask;
        int pid;
        Origin origin;
        std::string path;
        TimePoint readAt;
        int patience = mostHolds;  // how often it may be held once more
    };

    // What is known about processes lags behind by milliseconds, on a busy machine by tens of them.
    static constexpr int mostHolds = 20;

    void HandleEvent(const FanotifyEvent& event, TimePoint now);
    static Origin Settled(const Notification& notification);
    void FindWatches(const FanotifyEvent& event, Origin origin, TimePoint now);
    bool Hold(const FanotifyEvent& event, Origin origin, const std::string& directory, TimePoint now);
    void Send(const std::string& task, const Notification& notification);
    static Origin OriginOf(int pid);
    static bool IsAheadOfNotices(Origin origin, int pid);
    void Lost(TimePoint now, const char* why);

    WatchTable& watches;
    DirectoryLookup& lookup;
    pid_t self;
    DelayQueue<Notification> held;
    Sender sender;
    std::vector<WatchMatch> matches;

    int lastPid = -1;  // the process that lastOrigin is about; -1: none. Good for one buffer only
    Origin lastOrigin = Origin::Host;

    RepeatedReport losses;
    RepeatedReport unresolvedReport;
    SDK::Counters::Counter& read;
    SDK::Counters::Counter& overflow;
    SDK::Counters::Counter& notContainer;
    SDK::Counters::Counter& lostQueue;
    SDK::Counters::Counter& delivered;
    SDK::Counters::Counter& unresolved;
};

}  // namespace Engine
