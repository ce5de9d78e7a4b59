// SPDX-License-Identifier: Apache-2.0
// The names of containers, for what is told about them after the detection has seen them.
#pragma once

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "messages/ContainerMessages.h"

namespace SDK {

// Any thread.
class ContainerNames {
public:
    // Whether more of the container's names may become known soon: its bundle is about to be read or an engine to be
    // asked, or no name is known and a container engine has not told of its containers yet.
    virtual bool IsAwaited(const std::string& id) const = 0;

    // The container engines that are asked or looked for.
    struct EngineState {
        std::string engine;   // as EngineAddress::Text
        bool answers;         // it has told of its containers, or can be asked
        bool isMissed;        // it does not, and should: it was asked for, or something is there
        std::string problem;  // why not, although something is there; may be empty
    };
    virtual std::vector<EngineState> Engines() const = 0;

    // Null for a container that is not known.
    virtual std::shared_ptr<const Engine::ContainerInfo> Find(const std::string& id) const = 0;

    // Those that are asked, while this lives: they come and go with their module. Not while this thread has another.
    class InForce {
    public:
        InForce();
        const ContainerNames* Get() const { return names; }  // null: there are none

    private:
        std::shared_lock<std::shared_mutex> lock;
        const ContainerNames* names;
    };

    // Puts `next` in force; null: none. Not owned. Returns when the ones before are not used any more.
    static void Provide(const ContainerNames* next);

protected:
    ~ContainerNames() = default;
};

}  // namespace SDK
