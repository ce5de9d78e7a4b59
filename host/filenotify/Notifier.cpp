// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/Notifier.h"

#include <sys/fanotify.h>

#include <memory>
#include <utility>

#include "host/sdk/SystemView.h"
#include "host/sdk/TraceTime.h"
#include "messages/FileNotifyMessages.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

using SDK::Counters;
namespace CounterName = SDK::CounterName;

Notifier::Notifier(WatchTable& watches, DirectoryLookup& lookup, pid_t self, std::chrono::milliseconds hold,
                   Sender sender)
    : watches(watches),
      lookup(lookup),
      self(self),
      held(hold, maxHeld),
      sender(std::move(sender)),
      read(Counters::Get(CounterName::notifyRead)),
      overflow(Counters::Get(CounterName::notifyOverflow)),
      notContainer(Counters::Get(CounterName::notifyNotContainer)),
      lostQueue(Counters::Get(CounterName::notifyLostQueue)),
      delivered(Counters::Get(NotifyCounterName::delivered)),
      unresolved(Counters::Get(NotifyCounterName::unresolved))
{
}

void Notifier::Handle(std::span<const std::byte> buffer, TimePoint now)
{
    lastPid = -1;
    FanotifyEventReader reader{buffer};
    FanotifyEvent event;
    while (reader.Next(event)) {
        HandleEvent(event, now);
    }
    if (reader.Malformed()) {
        Lost(now, "the kernel's answer makes no sense");
    }
}

void Notifier::ReadFailed(std::error_code error, TimePoint now)
{
    Lost(now, error.message().c_str());
}

void Notifier::HandleEvent(const FanotifyEvent& event, TimePoint now)
{
    if ((event.mask & FAN_Q_OVERFLOW) != 0) {
        Lost(now, "the kernel's queue was full");
        return;
    }
    read.fetch_add(1, std::memory_order_relaxed);
    if ((event.mask & FAN_ONDIR) != 0 && (event.mask & (FAN_CREATE | FAN_DELETE | FAN_MOVE)) != 0) {
        lookup.DirectoryChanged(event.directory);
    }
    if (event.pid == self || !event.HasDirectory()) {
        return;
    }
    if (event.pid != lastPid) {
        lastOrigin = OriginOf(event.pid);
        lastPid = event.pid;
    }
    if (lastOrigin == Origin::Host) {
        notContainer.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    FindWatches(event, lastOrigin, now);
}

void Notifier::FindWatches(const FanotifyEvent& event, Origin origin, TimePoint now)
{
    const auto answer = lookup.PathsOf(
        event.directory, [&](const std::string& directory) { return Hold(event, origin, directory, now); });
    if (answer == DirectoryLookup::Answer::Failing) {
        Lost(now, "no descriptor or memory to look a directory up");
    } else if (answer == DirectoryLookup::Answer::Gone) {
        unresolved.fetch_add(1, std::memory_order_relaxed);
        if (const auto times = unresolvedReport.Occurred(now); times != 0) {
            NotifyNotice(
                "%llu accesses, by containers or unknown processes, were in directories that are gone or too deep; "
                "last by pid %d",
                static_cast<unsigned long long>(times), event.pid);
        }
    }
}

// Returns whether the path belongs to a watch that wants to know.
bool Notifier::Hold(const FanotifyEvent& event, Origin origin, const std::string& directory, TimePoint now)
{
    const std::string path = JoinPath(directory, event.name);
    watches.Match(path, event.mask, event.pid, now, matches);
    for (const WatchMatch& match : matches) {
        held.Push({match.watch->number, match.mask, event.pid, origin, path, now}, now);
    }
    return !matches.empty();
}

void Notifier::Release(TimePoint now)
{
    while (auto notification = held.Pop(now)) {
        const Watch* watch = watches.Find(notification->watch);
        if (watch == nullptr) {
            continue;
        }
        const Origin origin = Settled(*notification);
        const bool isAhead = origin == Origin::Entering || IsAheadOfNotices(origin, notification->pid);
        if (isAhead && notification->patience-- > 0) {
            held.Push(std::move(*notification), now);
            continue;
        }
        if (origin == Origin::Host || origin == Origin::Entering) {
            notContainer.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        Send(watch->subscriberName, *notification);
    }
}

void Notifier::Send(const std::string& task, const Notification& notification)
{
    auto message = std::make_unique<FileNotifyMessage>(notification.watch, notification.path,
                                                       static_cast<unsigned int>(notification.mask));
    message->SetProcess(static_cast<unsigned int>(notification.pid), {});
    auto& counter = sender(task, std::move(message)) ? delivered : lostQueue;
    counter.fetch_add(1, std::memory_order_relaxed);
}

// Asks again about who was not known for certain, as of the time of the access: what a runtime did before it became the
// container's program stays the runtime's.
Notifier::Origin Notifier::Settled(const Notification& notification)
{
    if (notification.origin == Origin::Container) {
        return Origin::Container;
    }
    SDK::TraceTime::Scope time;
    time.MoveTo(notification.readAt.time_since_epoch());
    return OriginOf(notification.pid);
}

// A subscriber drops, or keeps for later, what is about a process that it has not been told of.
bool Notifier::IsAheadOfNotices(Origin origin, int pid)
{
    return origin == Origin::Container && SDK::SystemView::Current().IsBeingAnnounced(pid);
}

Notifier::Origin Notifier::OriginOf(int pid)
{
    std::string containerId;
    if (SDK::ProcessUtils::GetContainerID(pid, containerId) != 0) {
        return Origin::Unknown;
    }
    if (!containerId.empty()) {
        return Origin::Container;
    }
    return SDK::SystemView::Current().MayBeEntering(pid) ? Origin::Entering : Origin::Host;
}

void Notifier::Lost(TimePoint now, const char* why)
{
    overflow.fetch_add(1, std::memory_order_relaxed);
    if (const auto times = losses.Occurred(now); times != 0) {
        NotifyWarning("file notifications were lost, %llu times, how many is unknown: %s",
                      static_cast<unsigned long long>(times), why);
    }
}

}  // namespace Engine
