// SPDX-License-Identifier: Apache-2.0
// Which container each of the kernel's identities stands for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "host/container/ContainerTable.h"
#include "host/sdk/SystemView.h"

namespace Engine {

// The BPF program gives a process a new identity when a process of the host moves it to another control group, and
// fork hands it on (Identify() in host/ftrace). So a process's identity tells its container whatever was lost and
// wherever the process has moved itself. Identities are numbers from 1 on, in the order in which they were given; 0 is
// none.
//
// Ownership: copies what it keeps.   Thread: the registry's.
// Errors:    throws nothing but std::bad_alloc.
class ContainerIdentities {
public:
    using Text = ContainerTable::Text;

    // Of so many identities the container is remembered, the latest: one for each process that a runtime has put into a
    // container.
    static constexpr std::size_t maxIdentities = 65536;
    // Of containers that have gone, so many of the latest.
    static constexpr std::size_t keptIdentities = 1024;
    // So many runtimes may be in set-up at a time, in groups that are not called like a container's.
    static constexpr std::size_t maxSetUps = 1024;

    // Null for an identity that belongs to no container.
    Text Find(std::uint32_t identity) const;

    void Put(std::uint32_t identity, Text container);

    // A runtime in set-up was put into a group whose name says nothing. The group is a container's only if the runtime
    // goes on to execute a container's program, and that may have gone when it is looked for.
    struct SetUp {
        std::string id;                   // that the runtime was told; may be empty
        std::vector<SDK::Cgroup> groups;  // one for each hierarchy
    };
    // A new one is empty. Good until the next one is asked for.
    SetUp& SetUpOf(std::uint32_t identity);
    // The id of it; empty when there is none.
    std::string IdInSetUp(std::uint32_t identity) const;
    // Forgets it; empty when there is none.
    SetUp TakeSetUp(std::uint32_t identity);

    // What belonged to the container `id` belongs to `next`. Looks at every identity.
    void Relabel(std::string_view id, const Text& next);

    // Forgets older identities of containers that are not among `living`.
    void Prune(const std::unordered_set<std::string_view>& living);

private:
    std::map<std::uint32_t, Text> containers;
    std::map<std::uint32_t, SetUp> setUps;
};

}  // namespace Engine
