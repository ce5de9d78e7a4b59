// SPDX-License-Identifier: Apache-2.0
#include "host/container/BundleReader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <utility>

#include "host/container/ContainerLog.h"
#include "host/container/OciBundle.h"
#include "host/sdk/RegularFile.h"

namespace Engine {

namespace {

// Nothing, with a warning where there is one that cannot be read.
std::optional<SDK::RegularFile> ReadFile(const std::string& path)
{
    SDK::RegularFile file = SDK::RegularFile::Read(path, BundleReader::maxFileBytes, O_NOFOLLOW);
    if (file.errorNumber == ENOENT) {
        return std::nullopt;
    }
    if (!file.error.empty()) {
        ContainerLog::Warning("%s: %s; its container has no names from there", path, file.error);
        return std::nullopt;
    }
    return file;
}

// Whether only root can have written it.
bool IsRoots(const SDK::RegularFile& file)
{
    return file.owner == 0 && (file.mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Of Podman's containers, names and image are in the lists of the storage, which are above their bundles: the second
// has those that are removed as soon as they end, from its version 4.4 on.
std::optional<ContainerInfo> FindStored(const std::string& id, const std::filesystem::path& bundle, bool& isRoots)
{
    const std::filesystem::path folder = bundle.parent_path().parent_path();
    for (const char* name : {"containers.json", "volatile-containers.json"}) {
        const std::optional<SDK::RegularFile> list = ReadFile(folder / name);
        auto stored = list ? OciBundle::ParseStored(id, list->text) : std::nullopt;
        if (stored) {
            isRoots = IsRoots(*list);
            return stored;
        }
    }
    return std::nullopt;
}

// Docker has its containers in a name space of containerd.
std::string EngineByPlace(const std::filesystem::path& bundle)
{
    const std::filesystem::path nameSpace = bundle.parent_path();
    if (nameSpace.parent_path().filename() != "io.containerd.runtime.v2.task") {
        return {};
    }
    return nameSpace.filename() == "moby" ? "docker" : "containerd";
}

// As most engines make ids: the name is kept elsewhere.
bool IsRandom(const std::string& id)
{
    constexpr std::size_t digits = 64;
    return id.size() == digits && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

void BundleReader::Want(const std::string& id, int pid, bool announced)
{
    {
        const std::lock_guard lock(mutex);
        if (containers.size() >= maxContainers && !containers.contains(id)) {
            return;
        }
        const auto [known, isNew] = containers.try_emplace(id);
        Container& container = known->second;
        container.wasAnnounced = container.wasAnnounced || announced;
        const bool isLacking = !container.hasBundle || (container.searches == 0 && !container.isKnown);
        const bool isWantedAgain = !isNew && announced && !container.isSecond && isLacking;
        if (!isNew && !isWantedAgain) {
            return;
        }
        ++container.searches;
        container.isSecond = isWantedAgain;
    }
    Wanted wanted{id, BundleFinder::AncestorsOf(system, pid)};
    {
        const std::lock_guard lock(mutex);
        queue.push_back(std::move(wanted));
    }
    calls.wakeReader();
}

bool BundleReader::IsAwaited(const std::string& id) const
{
    const std::lock_guard lock(mutex);
    const auto known = containers.find(id);
    return known != containers.end() && known->second.searches > 0;
}

void BundleReader::AskAgain()
{
    {
        const std::lock_guard lock(mutex);
        for (auto& [id, container] : containers) {
            if (container.searches == 0) {
                container.searches = 1;
                unasked.push_back(id);
            }
        }
    }
    calls.wakeAsker();
}

void BundleReader::ReadWanted()
{
    for (;;) {
        Wanted wanted;
        {
            const std::lock_guard lock(mutex);
            if (queue.empty()) {
                return;
            }
            wanted = std::move(queue.front());
            queue.pop_front();
        }
        const bool isFound = Read(wanted);
        {
            const std::lock_guard lock(mutex);
            if (const auto known = containers.find(wanted.id); known != containers.end()) {
                known->second.hasBundle = known->second.hasBundle || isFound;
                unasked.push_back(std::move(wanted.id));
            }
        }
        calls.wakeAsker();
    }
}

bool BundleReader::AskNext()
{
    std::string id;
    {
        const std::lock_guard lock(mutex);
        if (unasked.empty()) {
            return false;
        }
        id = std::move(unasked.front());
        unasked.pop_front();
    }
    const bool isKnown = calls.ask(id);
    const std::lock_guard lock(mutex);
    if (const auto known = containers.find(id); known != containers.end()) {
        Container& container = known->second;
        container.isKnown = isKnown;
        if (!isKnown && container.wasAnnounced && !container.isSecond) {  // they know by now
            container.isSecond = true;
            unasked.push_back(id);
        } else {
            --container.searches;
        }
    }
    return !unasked.empty();
}

void BundleReader::KeepOnly(const std::unordered_set<std::string_view>& living)
{
    const std::lock_guard lock(mutex);
    std::erase_if(containers,
                  [&living](const auto& item) { return item.second.searches == 0 && !living.contains(item.first); });
}

// False when there is no bundle. What an unprivileged user could have written is not vouched for.
bool BundleReader::Read(const Wanted& wanted)
{
    const std::string bundle = finder.Find(wanted.id, wanted.ancestors);
    const std::optional<SDK::RegularFile> config = bundle.empty() ? std::nullopt : ReadFile(bundle + "/config.json");
    std::optional<ContainerInfo> info = config ? OciBundle::ParseConfig(wanted.id, config->text) : std::nullopt;
    if (config && !info) {
        ContainerLog::Warning("%s/config.json: not a container's configuration", bundle);
    }
    if (!info) {
        return !bundle.empty();
    }
    bool isVouchedFor = IsRoots(*config) && BundleFinder::IsNamedAfter(bundle, wanted.id) &&
                        !OciBundle::HasForeignAnnotations(config->text);
    if (info->name.empty() && std::filesystem::path(bundle).filename() == "userdata") {
        bool isRoots = false;
        if (const auto stored = FindStored(wanted.id, bundle, isRoots)) {
            info->name = stored->name;
            info->imageName = stored->imageName;
            info->imageId = stored->imageId;
            info->engine = "podman";
            isVouchedFor = isVouchedFor && isRoots;
        }
    }
    if (info->engine.empty()) {
        info->engine = EngineByPlace(bundle);
    }
    if (info->name.empty() && !IsRandom(wanted.id)) {
        info->name = wanted.id;  // given by hand
    }
    if (!info->name.empty()) {
        cache.Put(std::move(*info), {0, isVouchedFor, false});
    }
    return true;
}

}  // namespace Engine
