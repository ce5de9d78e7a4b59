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

// Of Podman's containers, names and image are in the storage's own list, which is above their bundles.
std::optional<SDK::RegularFile> StoredList(const std::string& bundle)
{
    const std::filesystem::path folder = std::filesystem::path(bundle).parent_path().parent_path();
    return ReadFile(folder / "containers.json");
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
        const bool isWantedAgain = container.state == State::Missing && announced;
        if (!isNew && !isWantedAgain) {
            return;
        }
        container.state = State::Wanted;
        container.isSecond = isWantedAgain;
    }
    Wanted wanted{id, BundleFinder::AncestorsOf(system, pid)};
    {
        const std::lock_guard lock(mutex);
        queue.push_back(std::move(wanted));
    }
    wake();
}

bool BundleReader::IsAwaited(const std::string& id) const
{
    const std::lock_guard lock(mutex);
    const auto known = containers.find(id);
    return known != containers.end() && known->second.state == State::Wanted;
}

void BundleReader::AskAgain()
{
    {
        const std::lock_guard lock(mutex);
        for (auto& [id, container] : containers) {
            if (container.state != State::Wanted) {
                container.state = State::Wanted;
                unasked.push_back(id);
            }
        }
    }
    wake();
}

// A bundle is read in no time. An engine may take long, so what comes meanwhile goes first.
bool BundleReader::Step()
{
    ReadBundles();
    std::string id;
    {
        const std::lock_guard lock(mutex);
        if (unasked.empty()) {
            return false;
        }
        id = std::move(unasked.front());
        unasked.pop_front();
    }
    const bool isKnown = ask(id);
    const std::lock_guard lock(mutex);
    if (const auto known = containers.find(id); known != containers.end()) {
        Container& container = known->second;
        if (!isKnown && container.wasAnnounced && !container.isSecond) {  // it knows by now
            container.isSecond = true;
            unasked.push_back(id);
        } else {
            container.state = isKnown && container.hasBundle ? State::Found
                              : container.isSecond           ? State::MissingTwice
                                                             : State::Missing;
        }
    }
    return !unasked.empty() || !queue.empty();
}

void BundleReader::ReadBundles()
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
        const std::lock_guard lock(mutex);
        if (const auto known = containers.find(wanted.id); known != containers.end()) {
            known->second.hasBundle = isFound;
            unasked.push_back(std::move(wanted.id));
        }
    }
}

void BundleReader::KeepOnly(const std::unordered_set<std::string_view>& living)
{
    const std::lock_guard lock(mutex);
    std::erase_if(containers, [&living](const auto& item) {
        return item.second.state != State::Wanted && !living.contains(item.first);
    });
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
        const std::optional<SDK::RegularFile> list = StoredList(bundle);
        const auto stored = list ? OciBundle::ParseStored(wanted.id, list->text) : std::nullopt;
        if (stored) {
            info->name = stored->name;
            info->imageName = stored->imageName;
            info->imageId = stored->imageId;
            isVouchedFor = isVouchedFor && IsRoots(*list);
        }
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
