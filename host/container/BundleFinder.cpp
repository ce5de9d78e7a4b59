// SPDX-License-Identifier: Apache-2.0
#include "host/container/BundleFinder.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "host/container/EngineDocuments.h"
#include "host/container/RuntimeSetUp.h"
#include "host/sdk/Directory.h"

namespace Engine {

namespace {

constexpr int maxGenerations = 16;
constexpr int maxNamespaces = 64;  // of containerd
constexpr const char* storageDrivers[] = {"overlay", "vfs", "btrfs", "zfs"};

bool HasConfig(const std::filesystem::path& directory)
{
    return ::access((directory / "config.json").c_str(), F_OK) == 0;
}

// The directory that a runtime's, a shim's or a monitor's arguments give; empty for none.
std::string GivenBundle(const std::vector<std::string>& words)
{
    constexpr std::string_view joined = "--bundle=";
    for (std::size_t i = 1; i < words.size(); ++i) {
        if (words[i].starts_with(joined)) {
            return words[i].substr(joined.size());
        }
        if ((words[i] == "--bundle" || words[i] == "-b" || words[i] == "-bundle") && i + 1 < words.size()) {
            return words[i + 1];
        }
    }
    return {};
}

}  // namespace

BundleFinder::Roots BundleFinder::UsualRoots()
{
    return {
        {"/run/containerd/io.containerd.runtime.v2.task", "/run/docker/containerd/daemon/io.containerd.runtime.v2.task",
         "/run/k3s/containerd/io.containerd.runtime.v2.task",
         "/var/snap/microk8s/common/run/containerd/io.containerd.runtime.v2.task"},
        {"/var/lib/containers/storage", "/run/containers/storage"}};
}

// A container's own processes are not asked: they choose their arguments.
std::vector<BundleFinder::Ancestor> BundleFinder::AncestorsOf(SDK::SystemView& system, int pid)
{
    std::vector<Ancestor> ancestors;
    for (int generation = 0; generation < maxGenerations; ++generation) {
        const auto stat = system.StatOf(pid);
        pid = stat ? stat->parent : 0;
        if (pid <= 1 || RuntimeSetUp::HasLeftHost(system, pid)) {
            break;
        }
        const auto maker = RuntimeSetUp::IsMaker(system, pid) ? system.Describe(pid) : std::nullopt;
        if (maker) {
            ancestors.push_back({maker->arguments, maker->workingDirectory});
        }
    }
    return ancestors;
}

std::string BundleFinder::Find(const std::string& id, const std::vector<Ancestor>& ancestors) const
{
    if (!EngineDocuments::IsContainerId(id)) {
        return {};
    }
    if (std::string found = ByRoots(id); !found.empty()) {
        return found;
    }
    for (const auto& [arguments, workingDirectory] : ancestors) {
        const std::filesystem::path place = workingDirectory;
        std::vector<std::string> candidates{place.parent_path() / id};  // a shim stays in its first container's bundle
        if (std::find(arguments.begin(), arguments.end(), id) != arguments.end()) {
            candidates.insert(candidates.begin(), place / GivenBundle(arguments));
        }
        for (std::string& candidate : candidates) {
            candidate.erase(candidate.find_last_not_of('/') + 1);
            if (candidate.starts_with('/') && HasConfig(candidate)) {
                return candidate;
            }
        }
    }
    return {};
}

bool BundleFinder::IsNamedAfter(const std::string& directory, std::string_view id)
{
    const std::filesystem::path path(directory);
    return path.filename() == id || (path.filename() == "userdata" && path.parent_path().filename() == id);
}

std::string BundleFinder::ByRoots(const std::string& id) const
{
    for (const std::filesystem::path root : roots.tasks) {
        SDK::Directory names(root);
        int left = maxNamespaces;
        for (const dirent* entry = nullptr; names && left > 0 && (entry = names.Next()) != nullptr; --left) {
            std::filesystem::path directory = root / entry->d_name / id;
            if (entry->d_name[0] != '.' && HasConfig(directory)) {
                return directory;
            }
        }
    }
    for (const std::filesystem::path root : roots.storages) {
        for (const std::string driver : storageDrivers) {
            std::filesystem::path directory = root / (driver + "-containers") / id / "userdata";
            if (HasConfig(directory)) {
                return directory;
            }
        }
    }
    return {};
}

}  // namespace Engine
