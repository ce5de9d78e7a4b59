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

ContainerIdentities::SetUp& ContainerIdentities::SetUpOf(std::uint32_t identity)
{
    if (setUps.size() >= maxSetUps && !setUps.contains(identity)) {
        setUps.erase(setUps.begin());
    }
    return setUps[identity];
}

std::string ContainerIdentities::IdInSetUp(std::uint32_t identity) const
{
    const auto found = setUps.find(identity);
    return found == setUps.end() ? std::string{} : found->second.id;
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
