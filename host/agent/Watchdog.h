// SPDX-License-Identifier: Apache-2.0
// Ends the process when something takes too long.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace Agent {

// From construction to destruction: when `bound` passes in between, says that `what` takes too long and leaves the
// process at once with exit code 1. The kernel then takes back what the agent held.
class Watchdog {
public:
    Watchdog(std::chrono::milliseconds bound, std::string what);
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
    ~Watchdog();

private:
    void Wait(std::chrono::milliseconds bound, const std::string& what);

    std::mutex mutex;
    std::condition_variable changed;
    bool isDone = false;
    std::thread thread;
};

}  // namespace Agent
