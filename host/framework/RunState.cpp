// SPDX-License-Identifier: Apache-2.0
#include "host/framework/RunState.h"

namespace Framework {

RunState::Phase RunState::Get() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return phase;
}

void RunState::Set(Phase next)
{
    const std::lock_guard<std::mutex> lock(mutex);
    phase = next;
    changed.notify_all();
}

RunState::Phase RunState::WaitStarted(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, timeout, [this] { return phase != Phase::Starting; });
    return phase;
}

RunState::Phase RunState::WaitOver(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, timeout, [this] { return IsOver(phase); });
    return phase;
}

}  // namespace Framework
