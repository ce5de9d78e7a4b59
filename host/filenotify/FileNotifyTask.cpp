// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/FileNotifyTask.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/filenotify/NotifyLog.h"
#include "host/sdk/FindTask.h"
#include "host/sdk/Realtime.h"

namespace Engine {

namespace {

constexpr std::chrono::milliseconds readPause{5};       // between two reads while events keep coming; see Run
constexpr std::chrono::milliseconds checkPeriod{1000};  // between two looks at where the watched paths are
constexpr unsigned int queueCapacity = 1024;
constexpr std::size_t bufferBytes = std::size_t{128} * 1024;
constexpr std::size_t flood = bufferBytes / 2;  // read at once: the next ones cannot wait
constexpr int readsInARow = 32;                 // then messages have their turn
constexpr int messagesInARow = 256;

}  // namespace

FileNotifyTask::FileNotifyTask(FanotifyGroup opened)
    : Framework::Task("filenotify_task", "", Framework::TaskCondition::EventLoop, queueCapacity),
      group(std::move(opened)),
      notifier(watches, marks, getpid(),
               [this](std::unique_ptr<AccessBatch> batch) { SendDirectMsg("ftrace_task", batch.release()); }),
      buffer(bufferBytes)
{
}

int FileNotifyTask::Init()
{
    nextCheck = Clock::now() + checkPeriod;
    return ListenAgain() ? 0 : -1;
}

int FileNotifyTask::UnInit()
{
    StopListening();
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
        // Every event is dearer with objects. Not as soon as the last watch goes: with a new policy it comes again.
        EndSuspended();
        ChangeGroup(watches.AnyChanges());
        UpdateMarks();
        nextCheck = now + checkPeriod;
    }
    return going ? 0 : -1;
}

// Reads until nothing is queued, or for long enough. False: reading fails, and should not be repeated at once.
bool FileNotifyTask::ReadEvents()
{
    readable = false;
    std::error_code error;
    std::size_t total = 0;
    std::size_t largest = 0;
    for (int reads = 0; reads < readsInARow; ++reads) {
        const std::size_t size = group.Read(buffer, error);
        if (size == 0) {
            marks.Handles().QueueIsEmpty();
            break;
        }
        total += size;
        largest = std::max(largest, size);
        SDK::Realtime::Watch();
        notifier.Handle({buffer.data(), size}, Clock::now());
        if (marks.NeedUpdate()) {
            UpdateMarks();
        }
    }
    marks.CloseMounts();
    if (error) {
        notifier.ReadFailed(error, Clock::now());
        return false;
    }
    if (total == 0) {
        return ListenAgain();
    }
    StopListening();
    nextRead = largest < flood ? Clock::now() + readPause : Clock::time_point{};
    return true;
}

bool FileNotifyTask::ListenAgain()
{
    listening = listening || Waiter().Add(group.Descriptor(), EPOLLIN, [this](std::uint32_t) { readable = true; });
    if (!listening) {
        NotifyLog::Warning("cannot wait for file notifications (errno %d), reading them from time to time", errno);
        nextRead = Clock::now() + readPause;
    }
    return listening;
}

void FileNotifyTask::StopListening()
{
    if (std::exchange(listening, false)) {
        Waiter().Remove(group.Descriptor());
    }
}

int FileNotifyTask::TimeoutMs(Clock::time_point now) const
{
    const Clock::time_point next = listening ? nextCheck : std::min(nextCheck, nextRead);
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now);
    return static_cast<int>(std::max(wait, std::chrono::milliseconds{0}).count());
}

int FileNotifyTask::Receive(const FileNotifyWatchMessage& message)
{
    const std::string refusal = message.watch ? AddWatch(message) : RemoveWatch(message);
    if (refusal.empty()) {
        return 0;
    }
    if (message.watch) {
        const std::lock_guard lock(mutex);
        states[message.path] = refusal;
    }
    const char* what = message.watch ? "watch of" : "withdrawal of the watch of";
    NotifyLog::Warning("%s %s refused: %s", what, message.path, refusal);
    return -1;
}

void FileNotifyTask::UpdateMarks()
{
    marks.Update(watches);
    const std::lock_guard lock(mutex);
    for (const Watch& watch : watches.Watches()) {
        const std::error_code error = marks.ErrorOf(watch.number);
        states[watch.text] = error ? error.message() : std::string{};
    }
}

std::map<std::string, std::string> FileNotifyTask::Watches() const
{
    const std::lock_guard lock(mutex);
    return states;
}

// Returns why the watch is refused; empty: it is not.
std::string FileNotifyTask::AddWatch(const FileNotifyWatchMessage& message)
{
    const WatchEntry entry = ParseWatchEntry(message.path, message.eventMasks, message.options.changes);
    if (message.requester == nullptr || !entry.error.empty()) {
        return message.requester == nullptr ? "no task to notify" : entry.error;
    }
    const int number = watches.Add(message.requester, message.path, entry);
    if (watches.AnyChanges()) {
        ChangeGroup(true);
    }
    UpdateMarks();
    const std::error_code error = marks.ErrorOf(number);
    if (!error) {
        return {};
    }
    RemoveWatch(message);
    return error.message();
}

std::string FileNotifyTask::RemoveWatch(const FileNotifyWatchMessage& message)
{
    if (IsRestarting(message.requester)) {
        return watches.Suspend(message.requester, message.path) ? "" : "it is not watched";
    }
    const bool isWatched = watches.Remove(message.requester, message.path);
    {
        const std::lock_guard lock(mutex);
        states.erase(message.path);  // it comes back if another task watches it, too
    }
    if (!isWatched) {
        return "it is not watched";
    }
    UpdateMarks();
    return {};
}

// By name: a task may be deleted while its withdrawal waits in our queue.
bool FileNotifyTask::IsRestarting(const Framework::Task* subscriber) const
{
    const auto& all = watches.Watches();
    const auto known =
        std::find_if(all.begin(), all.end(), [=](const Watch& watch) { return watch.subscriber == subscriber; });
    return known != all.end() && SDK::IsRestarting(known->subscriberName, subscriber);
}

void FileNotifyTask::EndSuspended()
{
    const std::vector<std::string> ended = watches.EndSuspended(
        [](const Watch& watch) { return !SDK::IsRestarting(watch.subscriberName, watch.subscriber); });
    const std::lock_guard lock(mutex);
    for (const std::string& text : ended) {
        states.erase(text);
    }
}

// Update is to be called next.
void FileNotifyTask::ChangeGroup(bool withObjects)
{
    if (withObjects == group.WithObjects()) {
        return;
    }
    FanotifyGroup next;
    if (const std::error_code error = next.Open(withObjects)) {
        NotifyLog::Warning(
            "file notifications go on %s: fanotify_init: %s",
            withObjects ? "without hard links and moved directories" : "with what is not needed any more",
            error.message());
        return;
    }
    ReadEvents();
    StopListening();
    group = std::move(next);
    marks.StartOver();
    ListenAgain();
}

}  // namespace Engine
