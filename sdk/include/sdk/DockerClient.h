// SPDX-License-Identifier: Apache-2.0
// A client of the container engine's HTTP API over its unix socket. It only ever sends GET, follows no redirect and
// takes no notice of proxies.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace SDK {

// Thread: any number may use one client at a time. Get waits for the engine: not for a thread that raises alarms.
class DockerClient {
public:
    static constexpr std::chrono::milliseconds defaultTimeout{1000};
    static constexpr std::size_t maxReplyBytes = 16UL * 1024 * 1024;

    // Connects to nothing yet. `timeout` bounds each call as a whole, connecting included.
    explicit DockerClient(const std::string& socketPath, std::chrono::milliseconds timeout = defaultTimeout);

    struct Reply {
        int status = 0;     // HTTP status; 0 when there was no HTTP answer at all, below 200 when only part of one
        std::string body;   // at most maxReplyBytes
        std::string error;  // why there was no answer, or why the body is cut short; empty otherwise
    };

    // GET `target`, for example "/containers/json". One connection a call. Throws nothing but std::bad_alloc, whatever
    // the engine does.
    Reply Get(const std::string& target) const;

    const std::string& SocketPath() const { return socketPath; }

private:
    std::string socketPath;
    std::chrono::milliseconds timeout;
};

}  // namespace SDK
