// SPDX-License-Identifier: Apache-2.0
// Keeps the metadata cache in step with a container engine: reads what exists, then follows the engine's events, and
// begins anew when their stream breaks.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "host/container/EngineDocuments.h"
#include "host/container/MetadataCache.h"
#include "host/sdk/EngineStream.h"
#include "sdk/DockerClient.h"

namespace Engine {

// Ownership: `cache` is not owned and outlives the follower.
// Thread:    one at a time. Waits for the engine at most the client's time-out a call, and holds no lock meanwhile.
// Errors:    an engine that is absent, hangs or answers with nonsense is logged once, counted, and tried again after
//            1 s, 2 s, 4 s ... 30 s. Throws nothing but std::bad_alloc.
class EngineFollower {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds firstPause{1};
    static constexpr std::chrono::seconds longestPause{30};

    // `isCancelled` is asked between two calls to the engine: true ends what is under way.
    EngineFollower(const std::string& socketPath, MetadataCache& cache, std::function<bool()> isCancelled);

    // Connects when it is time to, and handles what the engine has said. May close the stream: Fd() must not be in an
    // event loop meanwhile.
    void Step(Clock::time_point now);

    // Of the stream of events, for an event loop; -1 when there is none.
    int Fd() const { return stream ? stream->Fd() : -1; }

    // When Step has something to do without news on Fd().
    Clock::time_point NextStep() const { return nextAttempt; }

    // Whether what exists has been read completely once, and whether the last attempt to reach the engine failed.
    bool HasReadAll() const { return hasReadAll; }
    bool IsUnreachable() const { return isUnreachable; }

private:
    void Connect(Clock::time_point now);
    bool ReadAll(Clock::time_point now);
    // Both: false when there was no answer.
    bool ReadOne(const std::string& id);
    bool ReadImageOf(const std::string& id);
    SDK::DockerClient::Reply Ask(const std::string& target);
    void TakeInspected(EngineDocuments::Inspected inspected);
    void FollowEvents(Clock::time_point now);
    void Apply(const EngineDocuments::Event& event, Clock::time_point now);
    void InspectChanged();
    void GiveUp(const std::string& why, Clock::time_point now);

    std::string socketPath;
    SDK::DockerClient client;
    MetadataCache& cache;
    std::function<bool()> isCancelled;
    std::optional<SDK::EngineStream> stream;
    std::set<std::string> changed;  // containers that events have named and that are to be inspected
    Clock::time_point nextAttempt;  // the clock's beginning: at once
    std::chrono::seconds pause = firstPause;
    bool hasReadAll = false;
    bool isUnreachable = false;
};

}  // namespace Engine
