// SPDX-License-Identifier: Apache-2.0
// One GET on the container engine's unix socket, by libcurl: no redirects, no proxies, HTTP/1 only. The engine may
// hang, drip or send nonsense: nothing waits past its deadline, and what is kept is bounded.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace SDK {

// Ownership: ends its connection when it goes.
// Thread:    one at a time; `sink` is called within Continue and AwaitStatus.
// Errors:    Error(). Throws nothing but std::bad_alloc.
class EngineRequest {
public:
    using Deadline = std::chrono::steady_clock::time_point;

    // Takes the next part of the body. False, or an exception: no more is wanted, the reply is too long.
    using Sink = std::function<bool(std::string_view part)>;

    static constexpr std::size_t maxHeadBytes = 64UL * 1024;  // all header lines together, trailers included

    // Connects to nothing yet. `target`: path and query, for example "/containers/json?all=1".
    EngineRequest(const std::string& socketPath, const std::string& target, Sink sink);
    EngineRequest(const EngineRequest&) = delete;
    EngineRequest& operator=(const EngineRequest&) = delete;
    ~EngineRequest();

    // Goes on as far as it can without waiting, at most some MiB. False when the reply is over: Error() is then empty
    // if it came completely. Harmless after that.
    bool Continue();

    // Waits until Continue has something to do. False when the deadline has passed, Error() says so.
    bool Wait(Deadline deadline);

    // Continues until the reply's status is known. False when that fails or the deadline passes: see Error().
    bool AwaitStatus(Deadline deadline);

    // The HTTP status; 0 while there is none, 100 to 199 while the final one has yet to come.
    int Status() const;

    // Readable (level-triggered) when Continue has something to do; for an event loop, once the status is known.
    // Closed when Continue has returned false.
    int Fd() const { return fd; }

    const std::string& Error() const { return error; }

    // Whether what has been asked is root's process: see EngineSocket. Known once the status is.
    bool IsRoots() const { return isRoots; }

private:
    struct Callbacks;  // that libcurl calls
    struct EndMulti {
        void operator()(void* handle) const;
    };
    struct EndEasy {
        void operator()(void* handle) const;
    };

    void SetOptions(const std::string& socketPath, const std::string& target);

    Sink sink;
    std::unique_ptr<void, EndMulti> multi;  // CURLM
    std::unique_ptr<void, EndEasy> easy;    // CURL
    std::array<char, 256> reason{};         // libcurl's, of the last failure; CURL_ERROR_SIZE
    std::size_t headBytes = 0;
    int fd = -1;  // libcurl's
    bool isRoots = false;
    std::string error;
};

}  // namespace SDK
