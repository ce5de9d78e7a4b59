// SPDX-License-Identifier: Apache-2.0
// The names of containers, for what is told about them after the detection has seen them.
#pragma once

#include <memory>
#include <string>

#include "messages/ContainerMessages.h"

namespace SDK {

// Any thread.
class ContainerNames {
public:
    // Whether the container's names may become known soon: its bundle is about to be read, or the container engine has
    // not told of its containers yet.
    virtual bool IsAwaited(const std::string& id) const = 0;

    // Whether a container engine has told of its containers, and can be asked.
    virtual bool HaveEngine() const = 0;

    // Null for a container that is not known.
    virtual std::shared_ptr<const Engine::ContainerInfo> Find(const std::string& id) const = 0;

protected:
    ~ContainerNames() = default;
};

}  // namespace SDK
