// SPDX-License-Identifier: Apache-2.0
#include "host/container/BundleReader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>

#include "host/container/ContainerLog.h"
#include "host/container/OciBundle.h"
#include "host/sdk/FileDescriptor.h"
#include "host/sdk/Limits.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

struct File {
    std::string text;
    bool isRoots = false;  // only root can have written it
};

// What was opened is looked at, not what the path leads to: a pipe would keep the reader waiting.
std::optional<File> ReadFile(const std::string& path)
{
    constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
    const SDK::FileDescriptor opened(SDK::Limits::Opened([&path] { return ::open(path.c_str(), flags); }));
    struct stat status {};
    File file;
    const char* problem = nullptr;
    if (!opened || ::fstat(opened.Get(), &status) != 0) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        problem = std::strerror(errno);
    } else if (!S_ISREG(status.st_mode)) {
        problem = "no regular file";
    } else if (SDK::FileUtils::ReadFile("/proc/self/fd/" + std::to_string(opened.Get()), file.text,
                                        BundleReader::maxFileBytes + 1) != 0) {
        problem = std::strerror(errno);
    } else if (file.text.size() > BundleReader::maxFileBytes) {
        problem = "too large";
    }
    if (problem != nullptr) {
        ContainerLog::Warning("%s: %s; its container has no names from there", path, std::string{problem});
        return std::nullopt;
    }
    file.isRoots = status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    return file;
}

// Of Podman's containers, names and image are in the storage's own list, which is above their bundles.
std::optional<File> StoredList(const std::string& bundle)
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

bool BundleReader::TakeLate()
{
    const std::lock_guard lock(mutex);
    return std::exchange(isLate, false);
}

void BundleReader::Step()
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
            Container& container = known->second;
            container.state = isFound ? State::Found : container.isSecond ? State::MissingTwice : State::Missing;
            isLate = isLate || (isFound && container.wasAnnounced && !cache.ImageNameOf(wanted.id).empty());
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
    const std::optional<File> config = bundle.empty() ? std::nullopt : ReadFile(bundle + "/config.json");
    std::optional<ContainerInfo> info = config ? OciBundle::ParseConfig(wanted.id, config->text) : std::nullopt;
    if (config && !info) {
        ContainerLog::Warning("%s/config.json: not a container's configuration", bundle);
    }
    if (!info) {
        return !bundle.empty();
    }
    bool isVouchedFor = config->isRoots && BundleFinder::IsNamedAfter(bundle, wanted.id);
    if (info->name.empty() && std::filesystem::path(bundle).filename() == "userdata") {
        const std::optional<File> list = StoredList(bundle);
        const auto stored = list ? OciBundle::ParseStored(wanted.id, list->text) : std::nullopt;
        if (stored) {
            info->name = stored->name;
            info->imageName = stored->imageName;
            info->imageId = stored->imageId;
            isVouchedFor = isVouchedFor && list->isRoots;
        }
    }
    if (info->name.empty() && !IsRandom(wanted.id)) {
        info->name = wanted.id;  // given by hand
    }
    if (!info->name.empty()) {
        cache.PutFromBundle(std::move(*info), isVouchedFor);
    }
    return true;
}

}  // namespace Engine
