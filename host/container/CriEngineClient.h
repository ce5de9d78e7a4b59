// SPDX-License-Identifier: Apache-2.0
// Asks an engine by the Kubernetes container runtime interface about each container that is come upon. Events of that
// interface are younger than many engines that are in use.
#pragma once

#include <functional>
#include <string>

#include "host/container/EngineClient.h"
#include "host/cri/CriLibrary.h"

namespace Engine {

// Thread: as EngineClient. A step or a question waits for the engine at most one time-out, the loading of the library
//         at the first one aside.
// Errors: as EngineClient; without the library, and what that needs, the engine counts as one that does not answer. An
//         answer about one container that is refused or too long is logged, counted (engine.skipped), and costs that
//         container what the engine knows of it.
class CriEngineClient final : public EngineClient {
public:
    // `reached`: called within Step when the engine can be asked from now on.
    CriEngineClient(SDK::EngineAddress address, MetadataCache& cache, int number, std::function<void()> reached,
                    std::chrono::milliseconds timeout = usualTimeout)
        : EngineClient(std::move(address), cache, number, timeout), reached(std::move(reached))
    {
    }

    void Step(Clock::time_point time) override;
    bool Read(const std::string& id) override;

private:
    Cri::Answer Ask(const std::string& id, bool& isRoots) const;
    void Fail(const Cri::Answer& answer);

    const std::function<void()> reached;
};

// What an answer tells of a container, with texts cut as those of other engines.
ContainerInfo ToContainerInfo(const std::string& id, const Cri::Answer& answer);

}  // namespace Engine
