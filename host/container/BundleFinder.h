// SPDX-License-Identifier: Apache-2.0
// Where the OCI bundle of a container is: the directory with its config.json. It is there before the container's first
// process (runtime.md of the OCI runtime specification).
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/sdk/SystemView.h"

namespace Engine {

// Thread: any. Errors: throws nothing but std::bad_alloc.
class BundleFinder {
public:
    // What the ancestors of a container's process, runtimes, shims and monitors of the host's own, tell about where its
    // bundle is. To be asked for as soon as the container is come upon: they may end with it.
    struct Ancestor {
        std::vector<std::string> arguments;
        std::string workingDirectory;
    };
    static std::vector<Ancestor> AncestorsOf(SDK::SystemView& system, int pid);

    struct Roots {
        std::vector<std::string> tasks;     // containerd's: <root>/<name space>/<id>
        std::vector<std::string> storages;  // of Podman and CRI-O: <root>/<driver>-containers/<id>/userdata
    };
    static Roots UsualRoots();

    explicit BundleFinder(Roots roots = UsualRoots()) : roots(std::move(roots)) {}

    // Empty when none is found: neither below a root, nor where an ancestor's arguments or working directory point.
    std::string Find(const std::string& id, const std::vector<Ancestor>& ancestors) const;

    // Whether the directory is the container's by its name: another container's could be given by arguments.
    static bool IsNamedAfter(const std::string& directory, std::string_view id);

private:
    std::string ByRoots(const std::string& id) const;

    Roots roots;
};

}  // namespace Engine
