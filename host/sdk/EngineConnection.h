// SPDX-License-Identifier: Apache-2.0
// One connection to the container engine's unix socket and the one GET that is sent on it. The engine may hang, drip
// or send nonsense: every call returns by its deadline.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "host/sdk/FileDescriptor.h"
#include "host/sdk/HttpReply.h"

namespace SDK {

// Thread: one at a time. Throws nothing but std::bad_alloc.
class EngineConnection {
public:
    using Deadline = std::chrono::steady_clock::time_point;

    // Connects to `socketPath` and sends GET `target`. False: Error() says why.
    bool Request(const std::string& socketPath, const std::string& target, Deadline deadline);

    enum class Progress { Read, Nothing, Ended, Failed };

    // Reads once what has come, without waiting, and appends its part of the body to `body`. Nothing: nothing has come.
    // Ended: the reply is complete. Failed: Error() says why.
    Progress Read(std::string& body);

    // Waits until there is something to read. False when the deadline passes first; Error() says so then.
    bool WaitReadable(Deadline deadline);

    const HttpReply& Reply() const { return reply; }
    const std::string& Error() const { return error; }
    int Fd() const { return socket.Get(); }

private:
    bool Connect(const std::string& socketPath, Deadline deadline);
    bool Send(std::string_view request, Deadline deadline);
    bool Wait(short events, Deadline deadline);
    bool Fail(std::string why);

    FileDescriptor socket;
    HttpReply reply;
    std::string error;
};

}  // namespace SDK
