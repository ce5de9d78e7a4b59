// SPDX-License-Identifier: Apache-2.0
// What systemd is told (sd_notify(3)): that the agent is ready, and that it is alive.
#pragma once

#include <string>

#include "host/sdk/FileDescriptor.h"

namespace Agent {

// Without effect where nothing waits for it ($NOTIFY_SOCKET is not set). Never waits, never throws. Thread: one at a
// time.
class ServiceManager {
public:
    ServiceManager();

    void Ready() { Tell("READY=1"); }
    void Alive() { Tell("WATCHDOG=1"); }  // at least twice in the time of WatchdogSec
    void Stopping() { Tell("STOPPING=1"); }

private:
    void Tell(const std::string& state) const;

    SDK::FileDescriptor socket;
    std::string address;  // a path, or a name of the abstract namespace that begins with '@'; empty: none
};

}  // namespace Agent
