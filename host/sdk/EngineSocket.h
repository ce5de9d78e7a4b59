// SPDX-License-Identifier: Apache-2.0
// What there is to say about a container engine's unix socket before its API is spoken. Throws nothing but
// std::bad_alloc.
#pragma once

#include <chrono>
#include <string>

#include "host/sdk/FileDescriptor.h"

namespace SDK::EngineSocket {

// A connection that does not block. Without descriptor when nothing listens there; errno says why. EAGAIN: something
// does, and its queue is full (unix(7), connect(2)).
FileDescriptor Connect(const std::string& path);

// Whether the process that listens at the connection's other end is root's (SO_PEERCRED, unix(7)). False: another
// user's, which may tell anything, or not known.
bool IsRoots(int connection);

// What answers to a request of HTTP/1 within the time. An engine that only knows HTTP/2 sends its settings (RFC 9113,
// 3.4 and 6.5).
enum class Protocol { Unknown, Http1, Http2 };
Protocol Probe(const std::string& path, std::chrono::milliseconds patience);

}  // namespace SDK::EngineSocket
