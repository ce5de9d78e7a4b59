// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/Notifier.h"

#include <sys/fanotify.h>

#include <memory>
#include <utility>

#include "host/filenotify/NotifyLog.h"
#include "host/sdk/Impairments.h"

namespace Engine {

namespace {

constexpr std::chrono::seconds loudestPeriod{1};

}  // namespace

Notifier::Notifier(const WatchTable& watches, Marks& marks, pid_t self, Sender sender)
    : watches(watches), marks(marks), self(self), sender(std::move(sender))
{
}

void Notifier::Handle(std::span<const std::byte> buffer, TimePoint now)
{
    lastPid = -1;
    marks.ForgetPaths();
    if (now - loudestSince > loudestPeriod) {
        loudestSince = now;
        loudest.Take();
    }
    FanotifyEventReader reader{buffer};
    FanotifyEvent event;
    while (reader.Next(event)) {
        HandleEvent(event, now);
    }
    marks.Handles().Settle();
    if (reader.Malformed()) {
        Lost(now, "the kernel's answer makes no sense");
    }
    if (batch != nullptr) {
        sender(std::move(batch));
    }
}

void Notifier::HandleEvent(const FanotifyEvent& event, TimePoint now)
{
    if ((event.mask & FAN_Q_OVERFLOW) != 0) {
        Lost(now, "the kernel's queue was full");
        marks.Handles().EventsLost();
        return;
    }
    read.fetch_add(1, std::memory_order_relaxed);
    if ((event.mask & FAN_ONDIR) != 0 && (event.mask & (FAN_CREATE | FAN_DELETE | FAN_MOVE)) != 0) {
        marks.DirectoryChanged(event.directory);
    }
    marks.Handles().Follow(event);
    if (event.pid == self || !event.HasDirectory()) {
        return;
    }
    if (event.pid != lastPid) {
        lastIsOfHost = OriginOf(event.pid, now, container) == AccessOrigin::Host;
        lastPid = event.pid;
    }
    if (lastIsOfHost) {
        notContainer.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (!container.empty()) {
        CountEvent();
    }
    FindWatches(event, now);
}

void Notifier::CountEvent()
{
    if (lastContainer == nullptr || *lastContainer != container) {
        lastContainer = std::make_shared<const std::string>(container);
    }
    loudest.Count(lastContainer);
}

void Notifier::FindWatches(const FanotifyEvent& event, TimePoint now)
{
    std::string path;
    matches.clear();
    const auto answer = marks.PathsOf(event.directory, [&](const std::string& directory) {
        path = JoinPath(directory, event.name);
        return Take(event, path, now);
    });
    if (matches.empty() && TakeByHandle(event, path, now)) {
        return;
    }
    if (answer == Marks::Answer::Failing) {
        Lost(now, "no descriptor or memory to look a directory up");
    } else if (answer == Marks::Answer::Gone) {
        unresolved.fetch_add(1, std::memory_order_relaxed);
        if (const auto times = unresolvedReport.Occurred(now); times != 0) {
            NotifyLog::Notice(
                "%?u accesses, by containers or unknown processes, were in directories that are gone or too deep; "
                "last by pid %d",
                times, event.pid);
        }
    }
}

// Returns whether the path belongs to a watch that wants to know.
bool Notifier::Take(const FanotifyEvent& event, const std::string& path, TimePoint now)
{
    watches.Match(path, event.mask, matches);
    Send(event, path, now);
    return !matches.empty();
}

// By another path than the watched one, or by none that a watched mount shows: then the watch's own stands for it.
bool Notifier::TakeByHandle(const FanotifyEvent& event, const std::string& path, TimePoint now)
{
    std::uint64_t mask = 0;
    const std::vector<int> numbers = marks.Handles().WatchesOf(event, mask);
    watches.Match(numbers, mask, matches);
    Send(event, path, now);
    return !numbers.empty();
}

// To the subscribers of `matches`.
void Notifier::Send(const FanotifyEvent& event, const std::string& path, TimePoint now)
{
    for (const WatchMatch& match : matches) {
        if (batch == nullptr) {
            batch = std::make_unique<AccessBatch>(now);
        }
        FileNotifyMessage access{match.watch->number, path.empty() ? match.watch->path : path,
                                 static_cast<unsigned int>(match.mask)};
        access.SetProcess(static_cast<unsigned int>(event.pid), {});
        batch->Add(match.watch->subscriberName, std::move(access));
    }
}

void Notifier::Lost(TimePoint now, const std::string& why)
{
    if (const std::string most = loudest.Take(); !most.empty()) {
        SDK::Impairments::SetLoudest(SDK::Impairments::Source::Files, most);
    }
    overflow.fetch_add(1, std::memory_order_relaxed);
    if (const auto times = losses.Occurred(now); times != 0) {
        NotifyLog::Warning("file notifications were lost, %?u times, how many is unknown: %s", times, why);
    }
}

}  // namespace Engine
