// SPDX-License-Identifier: Apache-2.0
// Tells the operator that a sink loses alarms, without a log line for each: the first loss at once, later ones as a
// sum.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "host/sdk/Counters.h"

namespace Engine {

// Any thread.
class LossReport {
public:
    explicit LossReport(const std::string& sink);

    // One alarm was lost on this sink.
    void Add(const std::string& reason);

    // Logs what has not been told yet.
    void Flush();

private:
    void Tell();

    static constexpr std::chrono::seconds interval{10};

    std::string sink;
    SDK::Counters::Counter& total;
    std::mutex mutex;
    std::uint64_t untold = 0;
    std::string lastReason;
    std::chrono::steady_clock::time_point nextTelling{};
};

}  // namespace Engine
