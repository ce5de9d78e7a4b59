// SPDX-License-Identifier: Apache-2.0
// A container engine that is asked about containers, by whatever API it has: what the clients of all have in common.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "host/container/MetadataCache.h"
#include "host/sdk/ContainerNames.h"
#include "host/sdk/EngineAddress.h"
#include "host/sdk/EngineSocket.h"

namespace Engine {

// Ownership: `cache` is not owned and outlives the client.
// Thread:    one at a time, HasReadAll, IsUnreachable and State any. No lock is held while the engine is waited for.
// Errors:    an engine that is absent, hangs or answers with nonsense is logged once, counted, and tried again after
//            0.1 s, 0.2 s, 0.4 s ... 30 s. Throws nothing but std::bad_alloc.
class EngineClient {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds firstPause{100};
    static constexpr std::chrono::milliseconds longestPause{30'000};
    static constexpr std::chrono::milliseconds usualTimeout{1000};

    EngineClient(const EngineClient&) = delete;
    EngineClient& operator=(const EngineClient&) = delete;
    virtual ~EngineClient() = default;

    // Connects when it is time to, and takes what the engine tells of its own accord. May close Fd(), which must not be
    // in an event loop meanwhile.
    virtual void Step(Clock::time_point now) = 0;

    // Has what the engine says about a container that has been come upon in the cache. False: it was asked, and does
    // not know the container, or not yet. An engine that tells of containers of its own accord is not asked.
    virtual bool Read(const std::string& id) = 0;

    // Readable when Step has something to do; -1 when nothing tells.
    virtual int Fd() const { return -1; }

    // When Step has something to do without news on Fd().
    Clock::time_point NextStep() const { return nextAttempt; }

    // The engine may have come: the next step connects, if it has not.
    void TryNow();

    // Whether the engine has told of all that exists once, or can be asked about it.
    bool HasReadAll() const { return hasReadAll; }
    // Whether the last attempt to reach the engine failed.
    bool IsUnreachable() const { return isUnreachable; }
    // Whether there is something to wait for at the start: an engine that was asked for, or that has a socket.
    bool IsExpected() const;

    SDK::ContainerNames::EngineState State() const;

protected:
    // `number`: of the engine, from 1 on, another for each. `timeout`: of a call.
    EngineClient(SDK::EngineAddress address, MetadataCache& cache, int number, std::chrono::milliseconds timeout)
        : address(std::move(address)), cache(cache), number(number), timeout(timeout)
    {
    }

    // The engine has answered.
    void Reached();
    // It has not, or not as its API has it. `why` is empty where that is no fault: there is no such engine. `other`:
    // what an engine of another API speaks.
    void GiveUp(std::string why, SDK::EngineSocket::Protocol other);
    void BackOff();

    const SDK::EngineAddress address;
    MetadataCache& cache;
    const int number;
    const std::chrono::milliseconds timeout;
    bool isConnected = false;
    Clock::time_point now;          // the step's
    Clock::time_point nextAttempt;  // the clock's beginning: at once
    std::chrono::milliseconds pause = firstPause;
    std::atomic<bool> hasReadAll{false};

private:
    std::atomic<bool> isUnreachable{false};
    mutable std::mutex mutex;  // of what follows
    std::string problem;       // why it does not answer although there is something
};

}  // namespace Engine
