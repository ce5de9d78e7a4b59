// SPDX-License-Identifier: Apache-2.0
// How far the thread of a task has come, for others to ask and to wait on.
// Ownership: shared by the task and by those that wait, so that a waiter survives the task.   Thread: any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Framework {

class RunState {
public:
    // Failed and Ended are both over: Failed when Init did not succeed, Ended otherwise.
    enum class Phase { Idle, Starting, Running, Stopping, Failed, Ended };

    static bool IsOver(Phase phase) { return phase == Phase::Idle || phase == Phase::Failed || phase == Phase::Ended; }

    Phase Get() const
    {
        const std::lock_guard lock(mutex);
        return phase;
    }

    void Set(Phase next)
    {
        const std::lock_guard lock(mutex);
        phase = next;
        changed.notify_all();
    }

    // Both return the phase that holds at the end of the wait, which is at most `timeout` long.
    Phase WaitStarted(std::chrono::milliseconds timeout) const
    {
        return Wait(timeout, [this] { return phase != Phase::Starting; });
    }
    Phase WaitOver(std::chrono::milliseconds timeout) const
    {
        return Wait(timeout, [this] { return IsOver(phase); });
    }

private:
    template <class Condition>
    Phase Wait(std::chrono::milliseconds timeout, Condition condition) const
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, timeout, condition);
        return phase;
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    Phase phase = Phase::Idle;
};

}  // namespace Framework
