// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerIdentities.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Engine {

ContainerIdentities::Text ContainerIdentities::Find(std::uint32_t identity) const
{
    const auto found = containers.find(identity);
    return found == containers.end() ? nullptr : found->second;
}

void ContainerIdentities::Put(std::uint32_t identity, Text container)
{
    containers.insert_or_assign(identity, std::move(container));
    if (containers.size() > maxIdentities) {
        containers.erase(containers.begin());
    }
}

void ContainerIdentities::AddSetUpGroup(std::uint32_t identity, const SDK::Cgroup& group, const std::string& id)
{
    SetUp& setUp = setUps[identity];
    setUp.id = setUp.id.empty() ? id : setUp.id;
    setUp.groups.push_back(group);
    if (setUps.size() > maxSetUps) {
        setUps.erase(setUps.begin());
    }
}

ContainerIdentities::SetUp ContainerIdentities::TakeSetUp(std::uint32_t identity)
{
    auto taken = setUps.extract(identity);
    return taken.empty() ? SetUp{} : std::move(taken.mapped());
}

void ContainerIdentities::Relabel(std::string_view id, const Text& next)
{
    for (auto& [identity, container] : containers) {
        container = ContainerTable::Same(container, id) ? next : container;
    }
}

void ContainerIdentities::Prune(const std::unordered_set<std::string_view>& living)
{
    std::size_t old = containers.size() - std::min(containers.size(), keptIdentities);
    for (auto each = containers.begin(); old > 0; --old) {
        each = living.contains(*each->second) ? std::next(each) : containers.erase(each);
    }
}

}  // namespace Engine
