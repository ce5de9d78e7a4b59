// SPDX-License-Identifier: Apache-2.0
// How long a sink may wait for its reader: without limit while the agent runs, a short while when it stops.
#pragma once

#include <atomic>
#include <chrono>

#include "host/sdk/FileDescriptor.h"

namespace Engine {

class WritePatience {
public:
    // Throws std::system_error when the kernel gives no eventfd.
    WritePatience();

    // From now on nobody waits longer than `bound`; who waits already hears of it. Only the first call counts.
    // Any thread.
    void End(std::chrono::milliseconds bound);

    // Whether that time is up.
    bool IsOver() const;

    // Waits until `fd` takes bytes, or until it has an error that the next write will tell. False: the patience is over
    // and it took none. Thread: the writer's.
    bool WaitWritable(int fd);

private:
    using Clock = std::chrono::steady_clock;

    SDK::FileDescriptor ended;            // eventfd, readable from End on
    std::atomic<Clock::rep> deadline{0};  // 0: none yet
};

}  // namespace Engine
