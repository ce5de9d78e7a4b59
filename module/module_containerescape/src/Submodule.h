// SPDX-License-Identifier: Apache-2.0
// A detector, as the detection task drives it. Thread: the detection task's thread, for every call.
#pragma once

#include "ContainerEscapeDetectPolicyContent.h"

namespace Engine {

class FileNotifyMessage;

class Submodule {
public:
    // At the task's start, after Reconfigure: subscribes to what the detector needs. 0 means success.
    virtual int Init() = 0;

    // At the task's end: ends the subscriptions. Init may follow again.
    virtual void DeInit() = 0;

    // After every round of messages. Returns 0.
    virtual int RunOnce() = 0;

    virtual ~Submodule() = default;

    // A file access by a process of a container. The message stays the caller's. The last detector's result becomes
    // the notification's; it stops nothing.
    virtual int HandleFileNotifyMsg(FileNotifyMessage* message) = 0;

    // New settings. What is subscribed follows them only at the next Init.
    virtual void Reconfigure(const ContainerEscapeDetectPolicyContent& content) = 0;
};

}  // namespace Engine
