// SPDX-License-Identifier: Apache-2.0
#include "ContainerKeys.h"

#include <cstdlib>
#include <utility>

#include "sdk/TimeUtils.h"

namespace Engine {
namespace {

constexpr std::int64_t roundSeconds = 3600;

}  // namespace

ScopeKey ContainerKeys::Of(const std::string& containerId)
{
    if (last == nullptr || last->first != containerId) {
        const auto [container, isNew] = containers.try_emplace(containerId, Container{next, true});
        next += isNew ? 1 : 0;
        last = &*container;
    }
    last->second.isUsed = true;
    return last->second.key;
}

// Two rounds without an event between them end a key. They are an hour apart unless there are too many containers.
std::vector<ScopeKey> ContainerKeys::DropIdle()
{
    if (containers.size() <= keptContainers) {
        return {};
    }
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    if (containers.size() <= mostContainers && std::abs(now - lastRound) < roundSeconds) {
        return {};
    }
    lastRound = now;
    last = nullptr;
    std::vector<ScopeKey> dropped;
    for (auto entry = containers.begin(); entry != containers.end();) {
        Container& container = entry->second;
        if (std::exchange(container.isUsed, false)) {
            ++entry;
        } else {
            dropped.push_back(container.key);
            entry = containers.erase(entry);
        }
    }
    return dropped;
}

}  // namespace Engine
