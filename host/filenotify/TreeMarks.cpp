// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/TreeMarks.h"

#include <sys/fanotify.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>

#include "host/filenotify/KernelHandle.h"
#include "host/filenotify/WatchTable.h"
#include "host/sdk/Limits.h"
#include "host/sdk/Realtime.h"

namespace Engine {

namespace {

// Asked for beside what the watches want, to hear of directories that come and go.
constexpr std::uint64_t changesOfTree = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_ONDIR;

std::error_code Error(int number)
{
    return std::error_code{number, std::generic_category()};
}

}  // namespace

std::error_code TreeMarks::Set(const std::vector<Tree>& next)
{
    if (next == trees && !outdated) {
        return failure;
    }
    if (WillStartOver(next)) {
        group.RemoveAll(FanotifyGroup::Scope::Inode);
    }
    trees = next;
    paths.clear();
    failure.clear();
    for (const Tree& tree : trees) {
        const std::error_code error = Walk(tree);
        failure = failure ? failure : error;
    }
    outdated = SDK::Limits::HasRunOut(failure);
    return failure;
}

// A directory is marked before it is read: one that is made in it is found there, or told of by an event.
std::error_code TreeMarks::Walk(const Tree& tree)
{
    const std::error_code first = MarkOne(tree.top, tree.events);
    if (first || !tree.recursive) {
        return first;
    }
    std::vector<std::string> pending{tree.top};
    while (!pending.empty()) {
        const std::string path = std::move(pending.back());
        pending.pop_back();
        SDK::Directory directory{path};
        if (!directory && SDK::Limits::HasRunOut(Error(errno))) {
            return Error(EMFILE);
        }
        if (directory && !MarkBelow(tree, path, directory, pending)) {
            return Error(ENOSPC);
        }
    }
    return {};
}

// Adds the directories to `pending`. False: there is no room for more.
bool TreeMarks::MarkBelow(const Tree& tree, const std::string& path, SDK::Directory& directory,
                          std::vector<std::string>& pending)
{
    struct stat own {};
    if (fstat(directory.Descriptor(), &own) != 0) {
        return true;
    }
    while (const dirent* entry = directory.Next()) {
        SDK::Realtime::Watch();
        const std::string_view name{entry->d_name};
        struct stat status {};
        if (name == "." || name == ".." ||
            fstatat(directory.Descriptor(), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISDIR(status.st_mode) || status.st_dev != own.st_dev) {
            continue;
        }
        std::string below = JoinPath(path, name);
        if (MarkOne(below, tree.events) == std::errc::no_space_on_device) {
            return false;
        }
        pending.push_back(std::move(below));
    }
    return true;
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
