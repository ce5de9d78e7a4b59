// SPDX-License-Identifier: Apache-2.0
// Alarms that wait for what there is to be known of their container. Its bundle is read, and engines are asked, when
// its first process runs; at boot the agent is ready before the container engine, which has started its containers by
// the time it tells of them.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>

#include "host/report/Alarm.h"
#include "host/sdk/ContainerNames.h"

namespace Engine {

// Thread: one at a time.
class NameWait {
public:
    using Clock = std::chrono::steady_clock;
    using Send = std::function<void(Alarm& alarm)>;

    // After it an alarm goes out as it is.
    static constexpr std::chrono::seconds patience{2};
    // Alarms that may wait; more go out as they are.
    static constexpr std::size_t capacity = 1024;

    // Whether the alarm goes out now; it then has the names of its container that it lacked, if they have become known
    // since it was raised. Otherwise it is taken, and waits: it has a container of which more is awaited. It is shown
    // in the log meanwhile, as it may tell of an attack that ends the agent. `names`: null for none.
    bool Pass(Alarm& alarm, const SDK::ContainerNames* names, Clock::time_point now);

    // Hands over, with their names as far as these are known, the alarms that have waited for long enough or whose
    // container's names are awaited no more.
    void Release(const SDK::ContainerNames* names, Clock::time_point now, const Send& send);

    bool IsEmpty() const { return waiting.empty(); }

private:
    struct Waiting {
        Alarm alarm;
        std::string container;
        Clock::time_point until;
    };
    std::deque<Waiting> waiting;  // longest first
};

}  // namespace Engine
