// SPDX-License-Identifier: Apache-2.0
// Keeps the metadata cache in step with a container engine by Docker's API, which Podman has, too: reads what exists,
// then follows the engine's events, and begins anew when their stream breaks.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "host/container/EngineClient.h"
#include "host/container/EngineDocuments.h"
#include "host/sdk/EngineRequest.h"

namespace Engine {

// Thread: as EngineClient. A step waits for the engine at most five time-outs (stream, list, three unanswered calls).
// Errors: as EngineClient; a container that the engine does not answer about is tried again in the same way. What is
//         too long of an answer or an event is skipped and counted (engine.skipped), and costs one container its names.
class DockerEngineClient final : public EngineClient {
public:
    static constexpr std::size_t maxLineBytes = 1024UL * 1024;  // of an event; a longer one is skipped

    // `isCancelled` is asked between two calls to the engine: true ends what is under way.
    DockerEngineClient(SDK::EngineAddress address, MetadataCache& cache, int number, std::function<bool()> isCancelled,
                       std::chrono::milliseconds timeout = usualTimeout)
        : EngineClient(std::move(address), cache, number, timeout), isCancelled(std::move(isCancelled))
    {
    }

    void Step(Clock::time_point time) override;
    bool Read(const std::string& /*id*/) override { return true; }  // its events tell
    int Fd() const override { return events ? events->Fd() : -1; }

private:
    bool Connect();
    bool ReadList();
    bool TakeEvents(std::string_view part);
    void Apply(const EngineDocuments::Event& event);
    void ReadContainers();
    // All: false when there was no answer.
    bool ReadAbout(const std::string& id);
    bool ReadImageOf(const std::string& id);
    bool ReadContainer(const std::string& id);
    struct Answer {
        int status = 0;  // of HTTP; 0: none
        std::string body;
        std::string error;     // why there is none
        bool isRoots = false;  // as EngineRequest
        bool IsThere() const { return status != 0 && error.empty(); }
    };
    Answer Ask(const std::string& target);
    void Await(SDK::EngineRequest& request) const;
    void Fail(const SDK::EngineRequest& request, const std::string& why);
    bool Keep(ContainerInfo info, bool isRoots);

    const std::function<bool()> isCancelled;
    std::optional<SDK::EngineRequest> events;
    std::string line;                // of the events, what has come of it
    std::set<std::string> changed;   // containers to be read now
    std::deque<std::string> unread;  // containers that the engine left unanswered, longest ago first
};

}  // namespace Engine
