// SPDX-License-Identifier: Apache-2.0
// Answers HTTP requests for metrics, on threads of normal priority.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/agent/MetricsAddress.h"

namespace Agent {

// A few connections at a time, each for one request and two seconds: clients that hang delay one another at most.
// Thread: one at a time.
class MetricsServer {
public:
    struct Answer {
        int status = 404;  // of HTTP
        std::string type = "text/plain; charset=utf-8";
        std::string body = "not found\n";
    };
    // To a GET of that path. Called on several threads, may throw.
    using Find = std::function<Answer(const std::string& path)>;

    // Starts to serve. Throws std::exception where there are no threads to be had.
    MetricsServer(MetricsListener listener, Find find);
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    // Ends all connections, whatever they are doing. Nothing calls `find` any more.
    ~MetricsServer();

    // Ends the connections that have had their time. To be called about once a second.
    void EndOverdue();

private:
    struct Parts;
    std::unique_ptr<Parts> parts;
};

}  // namespace Agent
