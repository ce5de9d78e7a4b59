// SPDX-License-Identifier: Apache-2.0
// Keeps the metadata cache in step with a container engine: reads what exists, then follows the engine's events, and
// begins anew when their stream breaks.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "host/container/EngineDocuments.h"
#include "host/container/MetadataCache.h"
#include "host/sdk/EngineRequest.h"
#include "sdk/DockerClient.h"

namespace Engine {

// Ownership: `cache` is not owned and outlives the client.
// Thread:    one at a time, HasReadAll and IsUnreachable any. A step waits for the engine at most five time-outs
// (stream,
//            list, three unanswered calls), and holds no lock meanwhile.
// Errors:    an engine that is absent, hangs or answers with nonsense is logged once, counted, and tried again after
//            0.1 s, 0.2 s, 0.4 s ... 30 s; so is a container that it does not answer about. What is too long of an
//            answer or an event is skipped and counted (engine.skipped), and costs one container its names. Throws
//            nothing but std::bad_alloc.
class ContainerEngineClient {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds firstPause{100};
    static constexpr std::chrono::milliseconds longestPause{30'000};
    static constexpr std::size_t maxLineBytes = 1024UL * 1024;  // of an event; a longer one is skipped

    // `socketPath`: SDK::Config::noEngine for an engine that stays unreachable and is never tried.
    // `isCancelled` is asked between two calls to the engine: true ends what is under way. `timeout`: of each call.
    ContainerEngineClient(const std::string& socketPath, MetadataCache& cache, std::function<bool()> isCancelled,
                          std::chrono::milliseconds timeout = SDK::DockerClient::defaultTimeout);

    // Connects when it is time to, takes the events that have come, and reads the containers that they name. May close
    // the stream: Fd() must not be in an event loop meanwhile.
    void Step(Clock::time_point now);

    // The engine may have come: the next step connects, if it has not.
    void TryNow();

    // Of the stream of events, readable when Step has something to do; -1 when there is none.
    int Fd() const { return events ? events->Fd() : -1; }

    // When Step has something to do without news on Fd().
    Clock::time_point NextStep() const { return nextAttempt; }

    // False when there is none by the agent's options.
    bool MayAnswer() const;
    // Whether the engine has been asked about all that exists once.
    bool HasReadAll() const { return hasReadAll; }
    // Whether the last attempt to reach the engine failed.
    bool IsUnreachable() const { return isUnreachable; }

private:
    bool Connect();
    bool ReadList();
    bool TakeEvents(std::string_view part);
    void Apply(const EngineDocuments::Event& event);
    void ReadContainers();
    // Both: false when there was no answer.
    bool ReadImageOf(const std::string& id);
    bool ReadContainer(const std::string& id);
    SDK::DockerClient::Reply Ask(const std::string& target);
    void Await(SDK::EngineRequest& request) const;
    void GiveUp(const std::string& why);
    void BackOff();

    const std::chrono::milliseconds timeout;
    const std::string socketPath;
    MetadataCache& cache;
    const std::function<bool()> isCancelled;
    std::optional<SDK::EngineRequest> events;
    std::string line;                // of the events, what has come of it
    std::set<std::string> changed;   // containers to be read now
    std::deque<std::string> unread;  // containers that the engine left unanswered, longest ago first
    Clock::time_point now;           // the step's
    Clock::time_point nextAttempt;   // the clock's beginning: at once
    std::chrono::milliseconds pause = firstPause;
    std::atomic<bool> hasReadAll{false};
    std::atomic<bool> isUnreachable{false};
};

}  // namespace Engine
