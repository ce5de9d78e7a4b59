// SPDX-License-Identifier: Apache-2.0
#include "host/container/SocketWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace Engine {

SocketWatch::SocketWatch(const std::vector<std::string>& paths) : inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    for (const std::string& path : paths) {
        for (std::size_t end = path.size(), slash = 0; end > 0 && (slash = path.rfind('/', end - 1)) != path.npos;
             end = slash) {
            names.insert(path.substr(slash + 1, end - slash - 1));
            directories.insert(path.substr(0, std::max<std::size_t>(slash, 1)));
        }
    }
    WatchDirectories();
}

// To watch one again changes nothing.
void SocketWatch::WatchDirectories()
{
    for (const std::string& directory : directories) {
        ::inotify_add_watch(inotify.Get(), directory.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    }
}

bool SocketWatch::HasAppeared()
{
    alignas(inotify_event) std::array<char, 4096> buffer{};
    bool hasAppeared = false;
    for (ssize_t size = 0; (size = ::read(inotify.Get(), buffer.data(), buffer.size())) > 0;) {
        for (ssize_t at = 0; at < size;) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + at, sizeof event);
            hasAppeared |= event.len != 0 && names.contains(buffer.data() + at + sizeof event);
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
    if (hasAppeared) {
        WatchDirectories();
    }
    return hasAppeared;
}

}  // namespace Engine
