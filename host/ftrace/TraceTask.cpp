// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceTask.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>
#include <utility>

#include "host/ftrace/EventName.h"
#include "host/ftrace/Log.h"
#include "host/sdk/FindTask.h"
#include "host/sdk/Impairments.h"

namespace Engine {
namespace {

using std::chrono::milliseconds;

constexpr unsigned int queueCapacity = 1024;
constexpr int maxMessages = 1024;
constexpr int maxReady = 128;

// Observers are told of a round at least ten times a second while there are events now and then, see EventWaiter.
constexpr int idleWaitMs = 90;

// Under load the buffers are never empty. Rounds at this distance take many events at once instead of a few with the
// same number of system calls. A few events are read at once: so many rounds may come ahead of their time.
constexpr milliseconds roundDistance{1};
constexpr int roundsAhead = 8;

// Longer without a round: the agent was stopped, or starved.
constexpr milliseconds longestGap{2000};

// How often the kernel's statistics are read.
constexpr milliseconds lookDistance{1000};

std::uint64_t Nanoseconds(std::chrono::steady_clock::time_point when)
{
    return static_cast<std::uint64_t>(std::chrono::nanoseconds{when.time_since_epoch()}.count());
}

std::string Milliseconds(std::chrono::steady_clock::duration time)
{
    return std::to_string(std::chrono::duration_cast<milliseconds>(time).count()) + " ms";
}

}  // namespace

TraceTask::TraceTask(std::unique_ptr<LiveTrace> liveTrace)
    : FtraceTask("ftrace_task", "", Framework::TaskCondition::EventLoop, queueCapacity),
      trace(std::move(liveTrace)),
      outlet{trace->Catalog(),
             // By name, not by pointer: a task may be deleted while its withdrawal still waits in our queue, and the
             // framework looks a name up and queues the message under one lock.
             [this](const std::string& task, std::unique_ptr<Framework::Message> message) {
                 return Send(task, std::move(message));
             },
             &counts},
      table(outlet),
      delivery(table, outlet, trace->Filter())
{
}

TraceTask::~TraceTask() = default;

int TraceTask::Init()
{
    {
        const std::lock_guard lock{mutex};
        lastRound = {};
        trace->ExcludeThread(::gettid());
        for (const KnownEvent* event : table.Events()) {
            trace->Record(*event);
        }
    }
    WatchDescriptors();
    return FtraceTask::Init();
}

int TraceTask::UnInit()
{
    IgnoreDescriptors();
    // Subscribers that stopped before withdrew here; without this they would refuse what is sent below.
    BulkConsumeMsg(maxMessages);
    const std::lock_guard lock{mutex};
    trace->StopAll();
    trace->Merger().Drain(delivery);
    delivery.EndRound(Clock::now().time_since_epoch());
    LookAfterLosses(Clock::now());
    return FtraceTask::UnInit();
}

int TraceTask::Run()
{
    Waiter().WaitAndHandleEvent(WaitMs(), maxReady);
    Pace();
    // Descriptors may be ready all the time: messages are served in every pass, whatever the wait returned.
    BulkConsumeMsg(maxMessages);
    const std::lock_guard lock{mutex};
    Round();
    return 0;
}

Sending TraceTask::Send(const std::string& task, std::unique_ptr<Framework::Message> message)
{
    if (SendDirectMsg(task, message.release()) == 0) {
        return Sending::Accepted;
    }
    const Framework::Task* receiver = SDK::FindTask(task);
    return receiver != nullptr && receiver->IsAccepting() ? Sending::Refused : Sending::Gone;
}

void TraceTask::Round()
{
    const Clock::time_point before = std::exchange(lastRound, Clock::now());
    if (before != Clock::time_point{} && lastRound - before > longestGap) {
        SDK::Impairments::Report("agent stopped", "no event was read for " + Milliseconds(lastRound - before));
    }
    const std::uint64_t observed = trace->Merger().Round(Nanoseconds(lastRound), delivery);
    delivery.EndRound(std::chrono::nanoseconds{observed});
    ForgetTheDead();
    if (table.HasSuspended()) {
        StopUnused(table.EndSuspended([](const TraceSubscriberQueue& queue) { return !IsRestarting(&queue); }));
    }
    if (lastRound - lastLook >= lookDistance) {
        lastLook = lastRound;
        LookAfterLosses(lastRound);
        WatchDescriptors();
    }
    counts.Publish();
}

int TraceTask::InterceptMsg(std::shared_ptr<Framework::Message>& message)
{
    if (auto barrier = std::dynamic_pointer_cast<TraceBarrier>(message); barrier != nullptr) {
        delivery.Take(std::move(barrier));
        message.reset();
    }
    return 0;
}

// A subscriber that refused its events because it is no more, or another task of that name took its place.
void TraceTask::ForgetTheDead()
{
    std::vector<const Framework::Task*> dead;
    for (const auto& queue : table.Queues()) {
        if (queue->IsRefused() && SDK::FindTask(queue->Name()) != queue->Task()) {
            dead.push_back(queue->Task());
        }
    }
    for (const Framework::Task* task : dead) {
        StopUnused(table.Remove(task));
    }
}

// What is dropped when it is written leaves no mark in a page; only the statistics tell.
void TraceTask::LookAfterLosses(Clock::time_point now)
{
    const KernelLoss loss = trace->TakeLoss();
    const SyscallLoss calls = trace->TakeSyscallLoss();
    if (loss.wasCleared || loss.readByOthers != 0) {
        wasTampered = true;
        SDK::Impairments::Report("tracefs tampered with", loss.wasCleared ? "the trace buffer was cleared"
                                                                          : "another program reads from the trace");
    }
    counts.lostOverrun += loss.overrun;
    counts.lostDropped += loss.dropped + calls.dropped;
    counts.lostLives += calls.droppedLife;
    counts.shedLives += calls.shedLife;
    counts.shedKernel += calls.shed;
    counts.late += trace->Merger().TakeLate();
    counts.lostPages += trace->Merger().TakeLostPages();
    if (wasTampered.exchange(false) || loss.dropped + calls.droppedLife != 0) {
        delivery.ReportLoss();
    }
    counts.Publish();
    counts.Warn(now);
}

int TraceTask::WaitMs() const
{
    return trace->Merger().Holding() || delivery.HasBarriers() ? 0 : idleWaitMs;
}

// `evenly` is when the next round would come if they all kept their distance.
void TraceTask::Pace()
{
    constexpr Clock::duration ahead = roundsAhead * roundDistance;
    const Clock::time_point now = Clock::now();
    if (evenly - now > ahead && !trace->Merger().IsBehind()) {
        std::this_thread::sleep_for(evenly - now - ahead);
    }
    evenly = std::clamp(evenly, now, now + ahead + roundDistance) + roundDistance;
}

void TraceTask::WatchDescriptors()
{
    for (const int fd : trace->Descriptors()) {
        if (watched.contains(fd)) {
            continue;
        }
        if (Waiter().Add(fd, EPOLLIN, [this, fd](std::uint32_t events) { OnReady(fd, events); })) {
            watched.insert(fd);
        }
    }
}

void TraceTask::IgnoreDescriptors()
{
    for (const int fd : watched) {
        Waiter().Remove(fd);
    }
    watched.clear();
}

// That something can be read is all a round needs to know. The buffer of a CPU that is not there reports an error all
// the time (ring_buffer_poll_wait, kernel/trace/ring_buffer.c); it is left alone until the next look.
void TraceTask::OnReady(int fd, std::uint32_t events)
{
    if ((events & EPOLLIN) == 0 && watched.erase(fd) != 0) {
        Waiter().Remove(fd);
    }
}

int TraceTask::Receive(const FtraceWatchMessage& message)
{
    if (message.requester == nullptr) {
        return EINVAL;
    }
    if (EventName::IsAuditRule(message.event)) {
        TraceLog::Information("nothing is recorded for the audit rule %s", message.event);
        return 0;
    }
    const std::lock_guard lock{mutex};
    const KnownEvent* event = trace->Catalog()->Find(message.system, message.event);
    if (event == nullptr) {
        return ENOENT;
    }
    if (message.unwatch) {
        if (IsRestarting(table.Find(message.requester))) {
            table.Suspend(message.requester, *event);
        } else {
            StopUnused(table.Remove(message.requester, event));
        }
        return 0;
    }
    const int error = table.Add(*message.requester, *event) ? trace->Record(*event) : 0;
    if (error != 0) {
        table.Remove(message.requester, event);
    }
    return error;
}

bool TraceTask::IsRestarting(const TraceSubscriberQueue* subscriber)
{
    return subscriber != nullptr && SDK::IsRestarting(subscriber->Name(), subscriber->Task());
}

void TraceTask::StopUnused(const std::vector<const KnownEvent*>& events)
{
    for (const KnownEvent* event : events) {
        if (const int error = trace->Stop(*event); error != 0) {
            TraceLog::Warning("the kernel goes on recording %s, which has no subscriber any more: errno %d",
                              event->kind.Name(), error);
        }
    }
}

bool TraceTask::AddObserver(TraceObserver& observer)
{
    const auto wanted = observer.ObservedEvents();
    const std::lock_guard lock{mutex};
    if (delivery.Observer() != nullptr) {
        return false;
    }
    for (const auto& [system, name] : wanted) {
        const KnownEvent* event = trace->Catalog()->Find(system, name);
        if (event == nullptr || (table.Observe(*event) && trace->Record(*event) != 0)) {
            TraceLog::Warning("the kernel does not trace %s:%s, going on without it", system, name);
        }
    }
    delivery.SetObserver(&observer);
    return true;
}

void TraceTask::RemoveObserver(TraceObserver& observer)
{
    const std::lock_guard lock{mutex};
    if (delivery.Observer() == &observer) {
        delivery.SetObserver(nullptr);
        StopUnused(table.StopObserving());
    }
}

std::set<std::string> TraceTask::RecordedEvents()
{
    const std::lock_guard lock{mutex};
    std::set<std::string> names;
    for (const KnownEvent* event : table.Events()) {
        names.insert(event->kind.Name());
    }
    return names;
}

std::vector<std::string> TraceTask::Repair()
{
    std::vector<std::string> found = trace->Repair();
    if (!found.empty()) {
        wasTampered = true;
    }
    return found;
}

void TraceTask::RequestRound()
{
    Waiter().Wake();
}

}  // namespace Engine
