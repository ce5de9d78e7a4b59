// SPDX-License-Identifier: Apache-2.0
// The program's signals, taken by the main thread where it waits. No handler runs anywhere.
#pragma once

#include <chrono>

#include "host/sdk/FileDescriptor.h"

namespace Agent {

class Signals {
public:
    enum class Event {
        Stop,    // SIGINT or SIGTERM
        Reload,  // SIGHUP
        Timeout,
    };

    // Blocks the three signals in this thread and in all that it starts afterwards, so make it before any other thread.
    // Ignores SIGPIPE and SIGXFSZ: a reader that goes away and a file that may not grow are errors of the write.
    // Ignores SIGXCPU: Limits puts a lowered limit back. Throws std::system_error.
    Signals();

    // Waits for the first of these. A stop goes before a reload, and once seen is told at every call.
    Event Wait(std::chrono::milliseconds timeout);

private:
    Event Take();

    SDK::FileDescriptor descriptor;  // signalfd(2)
    bool stopSeen = false;
};

}  // namespace Agent
