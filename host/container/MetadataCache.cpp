// SPDX-License-Identifier: Apache-2.0
#include "host/container/MetadataCache.h"

#include <algorithm>
#include <utility>

#include "host/container/OciBundle.h"

namespace Engine {

namespace {

int Rank(const MetadataCache::Source& source)
{
    return (source.isVouchedFor ? 2 : 0) + (source.engine != 0 ? 1 : 0);
}

// What `info` lacks is taken from `other`, whose word must not count for more than it is worth.
void Complete(ContainerInfo& info, const MetadataCache::Source& source, const ContainerInfo& other,
              const MetadataCache::Source& otherSource)
{
    if (source.isVouchedFor && !otherSource.isVouchedFor) {
        return;
    }
    const auto take = [](auto& value, const auto& from) {
        value = value.empty() ? from : value;
    };
    take(info.name, other.name);
    take(info.imageId, other.imageId);
    take(info.imageName, other.imageName);
    take(info.imageDigest, other.imageDigest);
    take(info.namespaces, other.namespaces);  // the first process may have ended
    take(info.mountDestinations, other.mountDestinations);
    take(info.labels, other.labels);
    take(info.engine, other.engine);
    info.privileged = info.privileged ? info.privileged : other.privileged;
    info.pod = info.pod.name.empty() ? other.pod : info.pod;
}

}  // namespace

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
    return found == records.end() || !found->second.source.isVouchedFor ? nullptr : found->second.info;
}

std::string MetadataCache::ImageNameOf(const std::string& id) const
{
    const std::shared_ptr<ContainerInfo> info = FindVouchedFor(id);
    return info == nullptr ? std::string{} : info->imageName;
}

std::string MetadataCache::AnnounceImageOf(const std::string& id)
{
    std::string image = ImageNameOf(id);
    const std::lock_guard lock{mutex};
    if (announced.size() < maxRecords || announced.contains(id)) {
        announced.insert_or_assign(id, image);
    }
    return image;
}

bool MetadataCache::TakeLate()
{
    const std::lock_guard lock{mutex};
    return std::exchange(isLate, false);
}

bool MetadataCache::Put(ContainerInfo info, Source source)
{
    const std::lock_guard lock{mutex};
    info.imageName = OciBundle::FamiliarImageName(info.imageName);
    if (!records.contains(info.id) && !MakeRoom()) {
        return false;
    }
    Slot& slot = records[info.id];
    if (slot.info == nullptr || slot.gone != Clock::time_point::max()) {
        slot.source = source;
    } else if (Rank(source) >= Rank(slot.source)) {
        Complete(info, source, *slot.info, slot.source);
        slot.source = source;
    } else {
        const ContainerInfo more = std::exchange(info, *slot.info);
        Complete(info, slot.source, more, source);
    }
    if (const auto known = recorded.find(info.id); known != recorded.end()) {
        info.namespaces = known->second;
    }
    slot.gone = Clock::time_point::max();
    NoteImage(info, slot.source);
    slot.info = std::make_shared<ContainerInfo>(std::move(info));
    return true;
}

// Its processes may have been announced with another image, or none.
void MetadataCache::NoteImage(const ContainerInfo& info, const Source& source)
{
    const auto told = announced.find(info.id);
    if (told != announced.end() && source.isVouchedFor && !info.imageName.empty() && told->second != info.imageName) {
        told->second = info.imageName;
        isLate = true;
    }
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
        if (!slot.source.tellsEnds && !living.contains(id)) {
            slot.gone = std::min(slot.gone, now);
        }
    }
    std::erase_if(announced, [&living](const auto& each) { return !living.contains(each.first); });
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

void MetadataCache::MarkGone(const std::string& id, int engine, Clock::time_point now)
{
    const std::lock_guard lock{mutex};
    if (const auto found = records.find(id); found != records.end() && found->second.source.engine == engine) {
        found->second.gone = std::min(found->second.gone, now);
    }
}

void MetadataCache::KeepOnly(const std::set<std::string>& ids, int engine, Clock::time_point now)
{
    const std::lock_guard lock{mutex};
    for (auto& [id, slot] : records) {
        if (slot.source.engine == engine && ids.count(id) == 0) {
            slot.gone = std::min(slot.gone, now);
        }
    }
}

std::size_t MetadataCache::Size() const
{
    const std::lock_guard lock(mutex);
    return records.size();
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
