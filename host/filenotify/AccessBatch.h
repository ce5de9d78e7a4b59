// SPDX-License-Identifier: Apache-2.0
// Accesses to watched paths, on their way to the subscribers.
//
// A notification and the trace events that tell of its process take different ways to the same subscriber: sent at once
// it would overtake them, and speak of a process that is not known yet. Every trace event that came before the access
// is older than the time at which the notification was read, so the access waits until the trace has been followed up
// to that time. Which process made it is known for certain then, and the subscriber is told of a container's process
// first.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/ftrace/TraceBarrier.h"
#include "messages/FileNotifyMessages.h"

namespace Engine {

// Names of counters beside those of the SDK's list.
namespace NotifyCounterName {
inline constexpr char delivered[] = "notify.delivered";    // queued for a subscriber
inline constexpr char unresolved[] = "notify.unresolved";  // not of the host, in a directory without a path
inline constexpr char late[] = "notify.late";              // see WatchedTree
}  // namespace NotifyCounterName

// Entering: of the host as far as is known, but what is known may lag behind the access.
enum class AccessOrigin { Host, Container, Unknown, Entering };

// As of that time. `container`: its id, where the origin is one. Any thread.
AccessOrigin OriginOf(int pid, std::chrono::steady_clock::time_point when, std::string& container);

// The paths are looked up before: later the directory may be gone. Those of a watch that is withdrawn while they are on
// their way, a millisecond or two, are still sent. What no subscriber's queue takes is counted as lost, and what a
// subscriber would get that has stopped is not.
class AccessBatch final : public TraceBarrier {
public:
    explicit AccessBatch(std::chrono::steady_clock::time_point readAt) : TraceBarrier(readAt.time_since_epoch()) {}
    AccessBatch(const AccessBatch&) = delete;
    AccessBatch& operator=(const AccessBatch&) = delete;
    ~AccessBatch() override;  // one that the trace task did not take counts what it holds as lost

    void Add(const std::string& subscriber, FileNotifyMessage access)
    {
        accesses[subscriber].push_back(std::move(access));
    }

    // Drops those of processes that have turned out to be of the host, reports the other processes, sends the rest.
    void OnReached(const ReportActive& reportActive, const MessageSender& send) override;
    unsigned long EventCount() const override;

private:
    using Accesses = std::vector<FileNotifyMessage>;

    void DropHosts(Accesses& of) const;
    static void Send(const std::string& subscriber, Accesses part, const MessageSender& send);

    std::map<std::string, Accesses> accesses;  // by the subscriber's name
};

}  // namespace Engine
