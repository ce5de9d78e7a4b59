// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/TreeMarks.h"

#include <sys/fanotify.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "host/filenotify/KernelHandle.h"
#include "host/sdk/Realtime.h"

namespace Engine {

namespace {

// Asked for beside what the watches want, to hear of directories that come and go.
constexpr std::uint64_t changesOfTree = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_ONDIR;

std::error_code Error(int number)
{
    return std::error_code{number, std::generic_category()};
}

// 0: there is nothing.
dev_t DeviceOf(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_dev : 0;
}

}  // namespace

std::error_code TreeMarks::Set(const std::vector<Tree>& next)
{
    if (next == trees && !outdated) {
        return failure;
    }
    if (next != trees) {
        group.RemoveAll(FanotifyGroup::Scope::Inode);
    }
    trees = next;
    outdated = false;
    paths.clear();
    failure.clear();
    for (const Tree& tree : trees) {
        const std::error_code error = Walk(tree);
        failure = failure ? failure : error;
    }
    return failure;
}

std::error_code TreeMarks::Walk(const Tree& tree)
{
    namespace fs = std::filesystem;
    const dev_t device = DeviceOf(tree.top);
    const std::error_code first = MarkOne(tree.top, tree.events);
    if (first || !tree.recursive) {
        return first;
    }
    std::error_code error;
    fs::recursive_directory_iterator entry{tree.top, fs::directory_options::skip_permission_denied, error};
    for (; !error && entry != fs::recursive_directory_iterator{}; entry.increment(error)) {
        SDK::Realtime::Watch();
        std::error_code ignored;  // an entry that has gone meanwhile is none
        if (!fs::is_directory(entry->symlink_status(ignored))) {
            continue;
        }
        const std::string directory = entry->path().string();
        if (DeviceOf(directory) != device) {
            entry.disable_recursion_pending();
        } else if (MarkOne(directory, tree.events) == std::errc::no_space_on_device) {
            return Error(ENOSPC);
        }
    }
    return {};
}

std::error_code TreeMarks::MarkOne(const std::string& directory, std::uint64_t events)
{
    if (paths.size() >= maxDirectories) {
        return Error(ENOSPC);
    }
    const std::error_code error =
        group.Add(FanotifyGroup::Scope::Inode, directory, events | changesOfTree | FAN_EVENT_ON_CHILD);
    if (error) {
        return error;
    }
    KernelHandle handle;
    if (const std::error_code unnamed = handle.Read(AT_FDCWD, directory.c_str())) {
        return unnamed;
    }
    const FileHandle view = handle.View(0);
    Key key{view.type, std::string{reinterpret_cast<const char*>(view.bytes.data()), view.bytes.size()}};
    paths.emplace(std::move(key), directory);
    return {};
}

const std::string* TreeMarks::PathOf(const FileHandle& directory) const
{
    if (paths.empty()) {
        return nullptr;
    }
    const auto* text = reinterpret_cast<const char*>(directory.bytes.data());
    const auto known = paths.find(Key{directory.type, std::string{text, directory.bytes.size()}});
    return known == paths.end() ? nullptr : &known->second;
}

}  // namespace Engine
