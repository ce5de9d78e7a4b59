// SPDX-License-Identifier: Apache-2.0
// How far a task's thread has come, for others to ask and to wait on.
// Ownership: shared by the task and by those who wait, so that a waiter survives the task.   Thread: any.
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

    Phase Get() const;
    void Set(Phase next);

    // Both return the phase that holds at the end of the wait, which is at most `timeout` long.
    Phase WaitStarted(std::chrono::milliseconds timeout) const;
    Phase WaitOver(std::chrono::milliseconds timeout) const;

private:
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    Phase phase = Phase::Idle;
};

}  // namespace Framework
