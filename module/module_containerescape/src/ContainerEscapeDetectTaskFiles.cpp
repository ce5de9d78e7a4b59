// SPDX-License-Identifier: Apache-2.0
// The detection task's file notifications: from known processes to the detectors, from unknown ones into a small cache.
#include <memory>
#include <vector>

#include "ContainerEscapeDetectTask.h"
#include "ModuleLog.h"
#include "sdk/DockerClient.h"
#include "sdk/StrUtils.h"

namespace Engine {

int ContainerEscapeDetectTask::FileNotifyMessageAction(FileNotifyMessage* message)
{
    const int pid = static_cast<int>(message->GetEventProcessId());
    ModuleLog::Debug("File notify action ,pid = %d", pid);
    const auto record = procs.find(pid);
    if (record == procs.end()) {
        HandleCacheMsg();
        CachedFanotifyMsg(pid, message->GetEventFilePath());
        return -1;
    }

    const std::string& containerId = record->second.containerId;
    SDK::DockerClient client("/var/run/docker.sock");
    ContainerInfo info;
    if (!DockerUtil::GetContainerInfo(client, containerId, info)) {
        ModuleLog::Error("Get image name for [pid = {%d} : cid = {%s}] failed", pid, containerId);
        return -1;
    }
    if (IsWhitelisted(info.imageName)) {
        return -1;
    }
    int result = -1;
    for (const auto& submodule : submodules) {
        result = submodule->HandleFileNotifyMsg(message);
    }
    return result;
}

void ContainerEscapeDetectTask::CachedFanotifyMsg(const int& pid, const std::string& filePath)
{
    if (fanotifyCache.size() >= maxCachedNotifications) {
        fanotifyCache.pop_front();
    }
    fanotifyCache.push_back({filePath, pid});
}

void ContainerEscapeDetectTask::HandleCacheMsg()
{
    for (auto entry = fanotifyCache.begin(); entry != fanotifyCache.end();) {
        if (!IsKnown(entry->pid)) {
            ++entry;
            continue;
        }
        ModuleLog::Debug("hit fanotify msg cache, handle it! pid = %d", entry->pid);
        FileNotifyMessage message(0, entry->filePath, 0);
        message.SetProcess(static_cast<unsigned int>(entry->pid), "");
        FileNotifyMessageAction(&message);  // the process is known now, so this touches the cache no more
        entry = fanotifyCache.erase(entry);
    }
}

bool ContainerEscapeDetectTask::IsWhitelisted(const std::string& image) const
{
    if (image.empty()) {
        return false;
    }
    std::string name = image;
    std::vector<std::string> parts;
    SDK::StrUtils::Split(image, "/", parts);
    if (parts.size() > 1) {
        // The tag goes only where there was a registry or a path before the name.
        std::vector<std::string> tagged;
        SDK::StrUtils::Split(parts.back(), ":", tagged);
        name = tagged.front();
    }
    ModuleLog::Debug("search image %s to check if it is in whitelist", name);
    return imageWhitelist.find(name) != imageWhitelist.end();
}

}  // namespace Engine
