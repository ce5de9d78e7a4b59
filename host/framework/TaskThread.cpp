// SPDX-License-Identifier: Apache-2.0
// A task's thread: Init, Run until cancelled, UnInit.
#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <system_error>

#include "LogSite.h"
#include "host/framework/ExceptionText.h"
#include "host/framework/PeriodicSchedule.h"
#include "host/framework/TaskImpl.h"
#include "host/sdk/Realtime.h"

namespace Framework {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Phase = RunState::Phase;

constexpr int mostEventsAtOnce = 128;
constexpr int mostMessagesAtOnce = 1024;
constexpr milliseconds pauseAfterFailedRun{100};
constexpr milliseconds longestWait{60'000};
constexpr milliseconds drainBound{200};
constexpr milliseconds patience{2000};  // until a stop that takes long is worth a warning

// The main thread takes the signals: a new thread inherits the mask of the one that makes it. Those that report a fault
// of the thread itself stay open, blocking them changes nothing for the better (signal(7)).
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_BLOCK, &all, &before);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

private:
    sigset_t before{};
};

void NameThread(const std::string& taskName)
{
    constexpr std::size_t longestName = 15;  // without the closing zero; pthread_setname_np(3)
    pthread_setname_np(pthread_self(), taskName.substr(0, longestName).c_str());
}

// Calls one of a task's operations. What it throws is logged and counts as `-1`.
template <class Operation>
int Guarded(const Task& task, const char* what, Operation operation)
{
    try {
        return operation();
    } catch (...) {
        SDK::RootLog::Error("task %s: %s failed: %s", task.name(), what, CurrentExceptionText());
        return -1;
    }
}

int WaitMs(const std::optional<milliseconds>& remaining)
{
    return static_cast<int>(std::min(remaining.value_or(longestWait), longestWait).count());
}

}  // namespace

bool Task::Impl::Start(Task& task)
{
    cancelled = false;
    accepting = true;
    task.reset();
    task.setState(TASK_RUNNING);
    state->Set(Phase::Starting);
    lastProgress = std::chrono::steady_clock::now();
    try {
        const SignalsBlocked blocked;
        thread = std::thread([&task] { task.runTask(); });
    } catch (const std::system_error& error) {
        SDK::RootLog::Error("task %s: no thread: %s", task.name(), error.what());
        restarting = false;
        accepting = false;
        DropQueued();
        state->Set(Phase::Failed);
        return false;
    }
    return true;
}

void Task::Impl::Join(const Task& task)
{
    if (!thread.joinable()) {
        return;
    }
    SDK::Realtime::Hurry(thread.native_handle());
    if (!RunState::IsOver(state->WaitOver(patience))) {
        SDK::RootLog::Warning("task %s takes long to stop, waiting on", task.name());
    }
    thread.join();
}

void Task::cancel()
{
    impl->cancelled = true;
    Poco::Task::cancel();
    impl->waiter.Wake();
}

void Task::runTask()
{
    NameThread(name());
    SDK::Realtime::Enter(name());
    impl->loopThread = std::this_thread::get_id();
    impl->state->Set(Phase::Starting);
    impl->interruptible = true;
    const int initResult = Guarded(*this, "Init", [this] { return Init(); });
    impl->restarting = false;
    if (initResult == 0) {
        impl->state->Set(Phase::Running);
        impl->Loop(*this);
        impl->state->Set(Phase::Stopping);
    } else {  // stays Starting until UnInit is done
        SDK::RootLog::Error("task %s does not run: Init returned %d", name(), initResult);
    }
    impl->interruptible = false;
    const bool startsAgain = impl->restarting;
    if (initResult == 0 && !startsAgain) {
        impl->Drain(*this);
    }
    impl->accepting = startsAgain;
    Guarded(*this, "UnInit", [this] { return UnInit(); });
    if (!startsAgain) {
        impl->DropQueued();
    }
    impl->loopThread = std::thread::id{};
    setState(TASK_FINISHED);
    impl->state->Set(initResult == 0 ? Phase::Ended : Phase::Failed);
}

void Task::Impl::Loop(Task& task)
{
    if (type == TaskCondition::EventLoop) {
        while (!cancelled) {
            RunOnce(task);
        }
        return;
    }
    const auto* settings = dynamic_cast<const TaskPolicy*>(task.taskPolicy.Get());
    PeriodicSchedule schedule(seconds{settings != nullptr ? settings->firstDelaySeconds : 0},
                              seconds{settings != nullptr ? settings->periodSeconds : 0},
                              PeriodicSchedule::Clock::now());
    while (!cancelled) {
        const auto remaining = schedule.Remaining(PeriodicSchedule::Clock::now());
        if (remaining == milliseconds{0}) {
            RunOnce(task);
            schedule.MarkRun(PeriodicSchedule::Clock::now());
            continue;
        }
        Guarded(task, "a descriptor's handler",
                [&] { return waiter.WaitAndHandleEvent(WaitMs(remaining), mostEventsAtOnce); });
        task.BulkConsumeMsg(mostMessagesAtOnce);
    }
}

// What was sent before the stop is still handled, as far as the time goes that a stop may take.
void Task::Impl::Drain(Task& task)
{
    const auto end = std::chrono::steady_clock::now() + drainBound;
    while (queue.Size() != 0 && std::chrono::steady_clock::now() < end) {
        task.BulkConsumeMsg(1);
    }
}

void Task::Impl::RunOnce(Task& task)
{
    NoteProgress();
    std::string failure;
    try {
        const int result = task.Run();
        if (result == 0) {
            return;
        }
        failure = "returned " + std::to_string(result);
    } catch (...) {
        failure = CurrentExceptionText();
    }
    if (const auto times = failedRuns.Occurred(SDK::RepeatedReport::Clock::now()); times != 0) {
        SDK::RootLog::Error("task %s: Run failed %?u times, going on: %s", task.name(), times, failure);
    }
    task.sleep(pauseAfterFailedRun.count());
}

}  // namespace Framework
