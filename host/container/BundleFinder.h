// SPDX-License-Identifier: Apache-2.0
// Where the OCI bundle of a container is: the directory with its config.json. It is there before the container's first
// process (runtime.md of the OCI runtime specification).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/sdk/SystemView.h"

namespace Engine {

// Ownership: `system` is not owned and outlives the finder.   Thread: any, one at a time.
// Errors:    throws nothing but std::bad_alloc.
class BundleFinder {
public:
    struct Roots {
        std::vector<std::string> tasks;     // containerd's: <root>/<name space>/<id>
        std::vector<std::string> storages;  // of Podman and CRI-O: <root>/<driver>-containers/<id>/userdata
    };
    static Roots UsualRoots();

    explicit BundleFinder(SDK::SystemView& system, Roots roots = UsualRoots()) : system(system), roots(std::move(roots))
    {
    }

    // Empty when none is found: neither below a root, nor named by the working directory or the arguments of a runtime,
    // a shim or a monitor among the ancestors of process `pid` that are the host's own.
    std::string Find(const std::string& id, int pid);

    // Whether the directory is the container's by its name: another container's could be given by arguments.
    static bool IsNamedAfter(const std::string& directory, std::string_view id);

private:
    std::string ByRoots(const std::string& id) const;
    std::string ByAncestors(const std::string& id, int pid);

    SDK::SystemView& system;
    const Roots roots;
};

}  // namespace Engine
