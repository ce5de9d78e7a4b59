// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerGroups.h"

#include <algorithm>
#include <mutex>

#include "host/sdk/CgroupPath.h"

namespace Engine {

namespace {

using SDK::CgroupPath;

constexpr std::size_t maxIdBytes = 255;

// The end tells more than the beginning.
std::string IdOfPath(std::string_view path)
{
    return std::string{path.substr(path.size() - std::min(path.size(), maxIdBytes))};
}

std::string_view CutLast(std::string_view& path)
{
    const std::string_view last = path.substr(path.rfind('/') + 1);
    path.remove_suffix(std::min(path.size(), last.size() + 1));
    return last;
}

std::string_view Without(std::string_view text, std::string_view start, std::string_view end)
{
    const bool isAround = text.starts_with(start) && text.ends_with(end) && text.size() > start.size() + end.size();
    return isAround ? text.substr(start.size(), text.size() - start.size() - end.size()) : text;
}

// The last part of the path. systemd-nspawn calls each container's group "payload", below the machine's own: NAME in
// "machine-NAME.scope", or "systemd-nspawn@NAME.service".
std::string NameOf(std::string_view path)
{
    const std::string_view last = CutLast(path);
    const std::string_view above = CutLast(path);
    if (last != "payload" || above.empty()) {
        return std::string{last};
    }
    return std::string{Without(Without(above, "machine-", ".scope"), "systemd-nspawn@", ".service")};
}

}  // namespace

std::string ContainerGroups::Find(const SDK::Cgroup& group) const
{
    const std::shared_lock lock{mutex};
    const std::string* known = ByPath(group);
    return known != nullptr ? *known : ById(group);
}

std::string ContainerGroups::Find(const std::vector<SDK::Cgroup>& groups) const
{
    for (const SDK::Cgroup& group : groups) {
        if (std::string id = Find(group); !id.empty()) {
            return id;
        }
    }
    return {};
}

// The longest path that is known of those that the group is in.
const std::string* ContainerGroups::ByPath(const SDK::Cgroup& group) const
{
    std::string path = group.path;
    while (!path.empty()) {
        if (const auto found = ids.find({group.hierarchy, path}); found != ids.end()) {
            return &found->second;
        }
        path.resize(std::min(path.rfind('/'), path.size() - 1));
    }
    return nullptr;
}

// By the name alone, of a group that nothing is known of.
std::string ContainerGroups::ById(const SDK::Cgroup& group) const
{
    const std::vector<CgroupPath::Part> parts = CgroupPath::ContainerParts(group.path);
    if (parts.empty()) {
        return {};
    }
    const std::string id{parts.back().id};
    const std::string path = group.path.substr(0, parts.back().end);
    const auto holder = holders.find({group.hierarchy, id});
    return holder == holders.end() || holder->second.path == path ? id : IdOfPath(path);
}

ContainerGroups::Claimed ContainerGroups::Claim(const SDK::Cgroup& group)
{
    const std::vector<CgroupPath::Part> parts = CgroupPath::ContainerParts(group.path);
    const std::lock_guard lock{mutex};
    if (const std::string* known = ByPath(group); known != nullptr && parts.size() <= 1) {
        return {*known, {}};
    }
    if (parts.empty()) {
        return {};
    }
    const std::string id{parts.back().id};
    const Holder claim{group.path.substr(0, parts.back().end), group.owner == 0, parts.size()};
    const Key path{group.hierarchy, claim.path};
    if (const auto known = ids.find(path); known != ids.end()) {
        return {known->second, {}};
    }
    const auto holder = holders.find({group.hierarchy, id});
    if (holder == holders.end()) {
        holders[{group.hierarchy, id}] = claim;
        Keep(path, id);
        return {id, {}};
    }
    const Holder before = holder->second;
    const bool isBetter = claim.isRoots != before.isRoots ? claim.isRoots : claim.depth < before.depth;
    if (!isBetter) {
        Keep(path, IdOfPath(claim.path));
        return {IdOfPath(claim.path), {}};
    }
    Claimed claimed{id, Displace(id, before)};
    holders[{group.hierarchy, id}] = claim;
    Keep(path, id);
    return claimed;
}

// In every hierarchy in which it has the id by that path.
std::string ContainerGroups::Displace(const std::string& id, const Holder& holder)
{
    std::string next = IdOfPath(holder.path);
    std::erase_if(holders, [&](const auto& item) {
        if (item.first.second != id || item.second.path != holder.path) {
            return false;
        }
        ids[{item.first.first, holder.path}] = next;
        return true;
    });
    return next;
}

std::string ContainerGroups::Adopt(const SDK::Cgroup& group, const std::string& given)
{
    const std::string id = given.empty() ? NameOf(group.path) : given;
    const std::lock_guard lock{mutex};
    if (const std::string* known = ByPath(group); known != nullptr) {
        return *known;
    }
    const auto [holder, isNew] = holders.try_emplace({group.hierarchy, id}, Holder{group.path, group.owner == 0, 1});
    const bool isFree = isNew || holder->second.path == group.path;
    Keep({group.hierarchy, group.path}, isFree ? id : IdOfPath(group.path));
    return ids.at({group.hierarchy, group.path});
}

void ContainerGroups::Keep(const Key& path, std::string id)
{
    ids.insert_or_assign(path, std::move(id));
    order.push_back(path);
    if (order.size() > maxGroups) {
        Forget(order.front());
        order.pop_front();
    }
}

void ContainerGroups::Forget(const Key& path)
{
    const auto known = ids.find(path);
    if (known == ids.end()) {
        return;
    }
    const auto holder = holders.find({path.first, known->second});
    if (holder != holders.end() && holder->second.path == path.second) {
        holders.erase(holder);
    }
    ids.erase(known);
}

void ContainerGroups::Prune(const std::unordered_set<std::string_view>& living)
{
    const std::lock_guard lock{mutex};
    const std::size_t old = order.size() - std::min(order.size(), keptGroups);
    std::size_t at = 0;
    std::erase_if(order, [&](const Key& path) {
        const auto known = ++at > old ? ids.end() : ids.find(path);
        const bool hasGone = known != ids.end() && !living.contains(known->second);
        if (hasGone) {
            Forget(path);
        }
        return hasGone;
    });
}

}  // namespace Engine
