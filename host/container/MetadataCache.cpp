// SPDX-License-Identifier: Apache-2.0
#include "host/container/MetadataCache.h"

#include <algorithm>
#include <utility>

namespace Engine {

std::shared_ptr<ContainerInfo> MetadataCache::Find(const std::string& id) const
{
    const std::lock_guard lock{mutex};
    const auto found = records.find(id);
    return found == records.end() ? nullptr : found->second.info;
}

std::shared_ptr<ContainerInfo> MetadataCache::FindVouchedFor(const std::string& id) const
{
    const std::lock_guard lock{mutex};
    const auto found = records.find(id);
    return found == records.end() || !found->second.isVouchedFor ? nullptr : found->second.info;
}

std::string MetadataCache::ImageNameOf(const std::string& id) const
{
    const std::shared_ptr<ContainerInfo> info = FindVouchedFor(id);
    return info == nullptr ? std::string{} : info->imageName;
}

bool MetadataCache::Put(ContainerInfo info)
{
    const std::lock_guard lock{mutex};
    return PutSlot(std::move(info), false, true);
}

bool MetadataCache::PutFromBundle(ContainerInfo info, bool isVouchedFor)
{
    const std::lock_guard lock{mutex};
    const auto known = records.find(info.id);
    if (known != records.end() && !known->second.isFromBundle) {
        ContainerInfo more = *known->second.info;
        more.pod = std::move(info.pod);
        known->second.info = std::make_shared<ContainerInfo>(std::move(more));
        return true;
    }
    return PutSlot(std::move(info), true, isVouchedFor);
}

bool MetadataCache::PutSlot(ContainerInfo info, bool isFromBundle, bool isVouchedFor)
{
    if (records.count(info.id) == 0 && !MakeRoom()) {
        return false;
    }
    if (const auto known = recorded.find(info.id); known != recorded.end()) {
        info.namespaces = known->second;
    } else if (const auto before = records.find(info.id); info.namespaces.empty() && before != records.end()) {
        info.namespaces = before->second.info->namespaces;  // its first process has ended, others may still run
    }
    if (const auto before = records.find(info.id); info.pod.name.empty() && before != records.end()) {
        info.pod = before->second.info->pod;
    }
    const std::string id = info.id;
    records[id] =
        Slot{std::make_shared<ContainerInfo>(std::move(info)), Clock::time_point::max(), isFromBundle, isVouchedFor};
    return true;
}

void MetadataCache::RecordNamespaces(const std::string& id, const Namespaces& namespaces)
{
    const std::lock_guard lock{mutex};
    if (recorded.insert_or_assign(id, namespaces).second) {
        recordedOrder.push_back(id);
    }
    // More of them than there are records for: the oldest make room.
    while (recordedOrder.size() > maxRecords) {
        recorded.erase(recordedOrder.front());
        recordedOrder.pop_front();
    }
    if (const auto found = records.find(id); found != records.end()) {
        ContainerInfo changed = *found->second.info;
        changed.namespaces = namespaces;
        found->second.info = std::make_shared<ContainerInfo>(std::move(changed));
    }
}

void MetadataCache::ForgetNamespaces(const std::string& id)
{
    const std::lock_guard lock{mutex};
    if (recorded.erase(id) != 0) {
        std::erase(recordedOrder, id);
    }
}

void MetadataCache::KeepLiving(const std::unordered_set<std::string_view>& living, Clock::time_point now)
{
    const std::lock_guard lock{mutex};
    for (auto& [id, slot] : records) {
        if (slot.isFromBundle && !living.contains(id)) {
            slot.gone = std::min(slot.gone, now);
        }
    }
    std::size_t old = recordedOrder.size() - std::min(recordedOrder.size(), keptNamespaces);
    std::erase_if(recordedOrder, [&](const std::string& id) {
        const bool hasGone = old != 0 && !living.contains(id);
        old -= old != 0 ? 1 : 0;
        if (hasGone) {
            recorded.erase(id);
        }
        return hasGone;
    });
}

void MetadataCache::MarkGone(const std::string& id, Clock::time_point now)
{
    const std::lock_guard lock{mutex};
    if (const auto found = records.find(id); found != records.end()) {
        found->second.gone = std::min(found->second.gone, now);
    }
}

void MetadataCache::KeepOnly(const std::set<std::string>& ids, Clock::time_point now)
{
    const std::lock_guard lock{mutex};
    for (auto& [id, slot] : records) {
        if (!slot.isFromBundle && ids.count(id) == 0) {
            slot.gone = std::min(slot.gone, now);
        }
    }
}

void MetadataCache::Purge(Clock::time_point now)
{
    const std::lock_guard lock{mutex};
    std::erase_if(records, [now](const auto& item) {
        const Slot& slot = item.second;
        return slot.gone != Clock::time_point::max() && now - slot.gone > keepGone;
    });
}

bool MetadataCache::MakeRoom()
{
    if (records.size() < maxRecords) {
        return true;
    }
    const auto longestGone = std::min_element(
        records.begin(), records.end(), [](const auto& a, const auto& b) { return a.second.gone < b.second.gone; });
    if (longestGone->second.gone == Clock::time_point::max()) {
        return false;
    }
    records.erase(longestGone);
    return true;
}

}  // namespace Engine
