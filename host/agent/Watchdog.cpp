// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Watchdog.h"

#include <unistd.h>

#include <utility>

#include "host/agent/Console.h"

namespace Agent {

Watchdog::Watchdog(std::chrono::milliseconds bound, std::string what)
    : thread([this, bound, text = std::move(what)] { Wait(bound, text); })
{
}

Watchdog::~Watchdog()
{
    {
        const std::lock_guard lock(mutex);
        isDone = true;
    }
    changed.notify_one();
    thread.join();
}

void Watchdog::Wait(std::chrono::milliseconds bound, const std::string& what)
{
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, bound, [this] { return isDone; })) {
        Say(what + " takes too long, giving up");
        ::_exit(failed);
    }
}

}  // namespace Agent
