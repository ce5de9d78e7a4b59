// SPDX-License-Identifier: Apache-2.0
// The alarm "Detection impaired": the agent was blind or nearly so, and says why.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "host/agent/StatusReport.h"
#include "messages/ContainerMessages.h"

namespace Agent {

// Each cause, for each container that it is blamed on, makes one alarm at once and then at most one a minute, which
// counts what came meanwhile. Causes are losses of events, by their counters, and what SDK::Impairments collects.
// Thread: one at a time.
class ImpairmentReport {
public:
    using Clock = std::chrono::steady_clock;
    using Send = std::function<void(const std::string& document)>;

    static constexpr std::chrono::minutes pause{1};
    static constexpr std::size_t maxKept = 256;  // causes and containers; beyond, the container is not named

    explicit ImpairmentReport(Send sendDocument) : send(std::move(sendDocument)) {}

    // Sends what is due. `names`: null when no container has a name.
    void Look(Clock::time_point now, const CounterValues& counters, Engine::ContainerMetaInfo* names);

    // The causes of the last minute with the last detail of each.
    std::map<std::string, std::string> Lately() const;

private:
    struct Entry {
        std::uint64_t pending = 0;  // events, or times, since the last alarm
        std::string detail;         // the last one
        Clock::time_point quietUntil = Clock::time_point::min();
    };
    using Key = std::pair<std::string, std::string>;  // cause, container

    void Add(const std::string& cause, const std::string& container, std::uint64_t count, const std::string& detail);

    Send send;
    std::map<std::string, std::uint64_t> seen;  // counters
    std::map<Key, Entry> entries;
};

}  // namespace Agent
