// SPDX-License-Identifier: Apache-2.0
// Which container a control group belongs to.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/sdk/SystemView.h"

namespace Engine {

// A group's name alone can be borrowed: an engine is told to make a container below another one's group, a user makes a
// group that is named like a container's, a container makes groups below its own. So:
// - An id belongs to the first group that a process of the host puts a process into, and to what is below it.
// - The innermost id of the path counts then, since an engine appends its own to what it was told.
// - Another group with that id belongs to a container of its own, whose id is the group's path. Only one that has a
//   better right takes the id over: a group that root owns from one that it does not, or one that is below fewer others
//   that have ids.
// - What a container makes below its group, and moves itself to, is never claimed: it belongs to the container.
//
// Ownership: copies what it keeps.   Thread: the registry's, Find any.
// Errors:    throws nothing but std::bad_alloc.
class ContainerGroups {
public:
    // So many groups are remembered at most; more push out those that were claimed first.
    static constexpr std::size_t maxGroups = 65536;
    // Of containers that have gone, so many of the latest; a container has one in each hierarchy.
    static constexpr std::size_t keptGroups = 1024;

    // The container's id, empty for none. Of a process's groups, the first one that has a container.
    std::string Find(const SDK::Cgroup& group) const;
    std::string Find(const std::vector<SDK::Cgroup>& groups) const;

    struct Claimed {
        std::string id;         // empty: no container's
        std::string displaced;  // the id that those have now which had this one until then; usually empty
    };
    // A process of the host has put a process there, or one was found there at the start.
    Claimed Claim(const SDK::Cgroup& group);

    // A runtime has set a container up there, whatever the group is called. Its id: `given` by the runtime, or if that
    // is empty the last part of the path.
    std::string Adopt(const SDK::Cgroup& group, const std::string& given = {});

    // Forgets older groups of containers that are not among `living`.
    void Prune(const std::unordered_set<std::string_view>& living);

private:
    using Key = std::pair<int, std::string>;  // hierarchy, and path or id
    struct Holder {
        std::string path;
        bool isRoots;       // root owns the group
        std::size_t depth;  // how many ids its path has
    };

    std::string ById(const SDK::Cgroup& group) const;
    const std::string* ByPath(const SDK::Cgroup& group) const;
    void Keep(const Key& path, std::string id);
    void Forget(const Key& path);
    std::string Displace(const std::string& id, const Holder& holder);

    mutable std::shared_mutex mutex;
    std::map<Key, std::string> ids;  // by path
    std::map<Key, Holder> holders;   // by id
    std::deque<Key> order;           // of the paths
};

}  // namespace Engine
