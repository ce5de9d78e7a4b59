// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/FileNotifyTask.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/filenotify/NotifyLog.h"
#include "host/filenotify/WatchEntry.h"

namespace Engine {

namespace {

constexpr unsigned int queueCapacity = 1024;
constexpr std::size_t bufferBytes = std::size_t{128} * 1024;
constexpr int readsInARow = 32;  // then messages have their turn
constexpr int messagesInARow = 256;

}  // namespace

FileNotifyTask::FileNotifyTask(FanotifyGroup opened, const FileNotifyTiming& timing)
    : Framework::Task("filenotify_task", "", Framework::TaskCondition::EventLoop, queueCapacity),
      group(std::move(opened)),
      timing(timing),
      notifier(watches, keeper, getpid(),
               [this](std::unique_ptr<AccessBatch> batch) { SendDirectMsg("ftrace_task", batch.release()); }),
      buffer(bufferBytes)
{
}

int FileNotifyTask::Init()
{
    nextCheck = Clock::now() + timing.checkPeriod;
    return ListenAgain() ? 0 : -1;
}

int FileNotifyTask::UnInit()
{
    if (listening) {
        Waiter().Remove(group.Descriptor());
        listening = false;
    }
    group.RemoveAll(FanotifyGroup::Scope::FileSystem);
    group.RemoveAll(FanotifyGroup::Scope::Inode);
    return 0;
}

int FileNotifyTask::Run()
{
    Waiter().WaitAndHandleEvent(TimeoutMs(Clock::now()), 1);
    BulkConsumeMsg(messagesInARow);
    bool going = true;
    if (readable || (!listening && Clock::now() >= nextRead)) {
        going = ReadEvents();
    }
    const Clock::time_point now = Clock::now();
    if (now >= nextCheck) {
        keeper.Update(watches);
        nextCheck = now + timing.checkPeriod;
    }
    return going ? 0 : -1;
}

// Reads until nothing is queued, or for long enough. False: reading fails, and should not be repeated at once.
bool FileNotifyTask::ReadEvents()
{
    readable = false;
    std::error_code error;
    std::size_t total = 0;
    for (int reads = 0; reads < readsInARow; ++reads) {
        const std::size_t size = group.Read(buffer, error);
        if (size == 0) {
            break;
        }
        total += size;
        notifier.Handle({buffer.data(), size}, Clock::now());
    }
    keeper.CloseMounts();
    if (error) {
        notifier.ReadFailed(error, Clock::now());
        return false;
    }
    if (total == 0) {
        return ListenAgain();
    }
    if (listening) {
        Waiter().Remove(group.Descriptor());
        listening = false;
    }
    nextRead = Clock::now() + timing.readPause;
    return true;
}

bool FileNotifyTask::ListenAgain()
{
    listening = listening || Waiter().Add(group.Descriptor(), EPOLLIN, [this](std::uint32_t) { readable = true; });
    if (!listening) {
        NotifyLog::Warning("cannot wait for file notifications (errno %d), reading them from time to time", errno);
        nextRead = Clock::now() + timing.readPause;
    }
    return listening;
}

int FileNotifyTask::TimeoutMs(Clock::time_point now) const
{
    const Clock::time_point next = listening ? nextCheck : std::min(nextCheck, nextRead);
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now);
    return static_cast<int>(std::max(wait, std::chrono::milliseconds{0}).count());
}

int FileNotifyTask::Receive(const FileNotifyWatchMessage& message)
{
    return message.watch ? AddWatch(message) : RemoveWatch(message);
}

int FileNotifyTask::AddWatch(const FileNotifyWatchMessage& message)
{
    if (message.requester == nullptr) {
        return Refuse(message, "nobody to notify");
    }
    const WatchEntry entry = ParseWatchEntry(message.path, message.eventMasks);
    if (!entry.error.empty()) {
        return Refuse(message, entry.error);
    }
    Watch& watch = watches.Add(message.requester, message.path, entry, message.options);
    watch.subscriberName = message.requester->name();
    const int number = watch.number;
    keeper.Update(watches);
    const std::error_code error = keeper.ErrorOf(number);
    const bool missing = message.options.existingOnly && !keeper.Exists(number);
    if (!error && !missing) {
        return 0;
    }
    watches.Remove(message.requester, message.path);
    keeper.Update(watches);
    return Refuse(message, missing ? "no such path" : error.message());
}

int FileNotifyTask::RemoveWatch(const FileNotifyWatchMessage& message)
{
    if (!watches.Remove(message.requester, message.path)) {
        return Refuse(message, "it is not watched");
    }
    keeper.Update(watches);
    return 0;
}

int FileNotifyTask::Refuse(const FileNotifyWatchMessage& message, const std::string& why) const
{
    const char* what = message.watch ? "watch of" : "withdrawal of the watch of";
    NotifyLog::Warning("%s %s refused: %s", what, message.path, why);
    return -1;
}

}  // namespace Engine
