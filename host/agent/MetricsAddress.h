// SPDX-License-Identifier: Apache-2.0
// Where metrics are served: a socket in the file system, or a port of a loopback address.
#pragma once

#include <Poco/Net/SocketAddress.h>

#include <sys/types.h>

#include <string>

#include "host/sdk/FileDescriptor.h"

namespace Agent {

// "unix:/PATH" or "127.0.0.1:PORT", "[::1]:PORT". Throws BadInput for anything else, so also for an address that other
// hosts reach, and for a name, which would have to be looked up.
Poco::Net::SocketAddress ParseMetricsAddress(const std::string& text);

// A socket that listens there, for its owner alone where it is one in the file system. What an agent that was killed
// left there is replaced; what else is there, a symbolic link too, stays and is an error. Goes with its file.
class MetricsListener {
public:
    MetricsListener() = default;                           // none
    explicit MetricsListener(const std::string& address);  // Throws BadInput with the cause.
    MetricsListener(MetricsListener&& other) noexcept;
    MetricsListener& operator=(MetricsListener&& other) noexcept;
    ~MetricsListener();

    explicit operator bool() const { return static_cast<bool>(descriptor); }
    int Get() const { return descriptor.Get(); }

private:
    SDK::FileDescriptor descriptor;
    std::string path;  // empty: a port
    dev_t device = 0;  // of the file, by which it is known
    ino_t inode = 0;
};

}  // namespace Agent
